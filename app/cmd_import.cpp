// kestrel import [--copy] PATH...: DICOM files and folders into the catalogue of database.ini.
#include "catalog.h"
#include "command.h"

#include "qdcmfiles.h"
#include "veldatabaseconnection.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/oflog/oflog.h>

#include <QCommandLineParser>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QTextStream>

#include <cstdio>
#include <unistd.h>

namespace {

// A progress bar on a terminal, plain lines otherwise.
class Progress
{
public:
    explicit Progress(bool terminal)
        : m_terminal(terminal)
        , m_out(stdout)
    {
    }

    void text(const QString& line)
    {
        m_text = line;
        if (m_terminal)
            draw();
        else
            m_out << line << '\n' << Qt::flush;
    }

    void value(int percent)
    {
        if (percent == m_percent)
            return;
        m_percent = percent;
        if (m_terminal)
            draw();
        else
            m_out << percent << "%\n" << Qt::flush;
    }

    void done()
    {
        if (m_terminal)
            m_out << '\n' << Qt::flush;
    }

private:
    void draw()
    {
        const int width = 30;
        const int filled = qBound(0, m_percent, 100) * width / 100;
        m_out << "\r[" << QString(filled, '#') << QString(width - filled, '.') << "] " << QString::number(m_percent).rightJustified(3)
              << "% " << m_text.left(40).leftJustified(40) << Qt::flush;
    }

    bool m_terminal;
    QTextStream m_out;
    QString m_text;
    int m_percent = 0;
};

int runImport(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Imports DICOM files and folders into the catalogue.");
    parser.addHelpOption();
    parser.addOption({"copy", "Copy the files into the storage tree (datasavepath.ini) and catalogue the copies."});
    parser.addOption({{"v", "verbose"}, "Show the importer's timing lines and DICOM parser warnings."});
    parser.addPositionalArgument("PATH", "DICOM files or folders (walked with their sub-folders).", "PATH...");
    if (const auto status = app::parseArguments(parser, "import", args))
        return *status;
    const QStringList paths = parser.positionalArguments();
    if (paths.isEmpty())
        return app::fail("import", "no PATH given (see 'kestrel import --help')", 2);
    for (const QString& path : paths) {
        if (!QFileInfo::exists(path))
            return app::fail("import", "no such file or folder: " + path, 2);
    }

    if (parser.isSet("verbose"))
        app::setVerbose(true);
    else
        OFLog::configure(OFLogger::FATAL_LOG_LEVEL);

    // A MySQL catalogue created on this call needs a second connect.
    if (!app::openCatalog())
        return app::fail("import", app::catalogOpenError());

    QStringList skipped;
    const QList<QString> files = QDcmFiles::filesBelow(paths, &skipped);
    if (files.isEmpty())
        return app::fail("import", "no file under the given paths");

    int status = 0;
    {
        QDcmFiles importer;
        Progress progress(isatty(fileno(stdout)));
        QObject::connect(&importer, qOverload<const QString&>(&QDcmFiles::readInfo), [&](const QString& text) { progress.text(text); });
        QObject::connect(&importer, qOverload<int, int>(&QDcmFiles::readInfo), [&](int value, int) { progress.value(value); });
        QStringList errors;
        QObject::connect(&importer, &QDcmFiles::errorInfo, [&](const QString& text) { errors << text; });
        importer.loadLocalFilesToDB(files, parser.isSet("copy") ? 1 : 0);
        progress.done();

        const QDcmFiles::RunCounts c = importer.lastRunCounts();
        QTextStream out(stdout);
        out << "files read:        " << c.filesRead << " of " << c.filesListed << '\n'
            << "patients added:    " << c.patientsAdded << '\n'
            << "studies added:     " << c.studiesAdded << '\n'
            << "series added:      " << c.seriesAdded << '\n'
            << "images added:      " << c.imagesAdded << '\n'
            << "duplicates skipped:" << ' ' << c.duplicates << '\n'
            << "files unreadable:  " << c.unreadable + skipped.size() << '\n';
        if (c.skippedNoPatientID)
            out << "without PatientID: " << c.skippedNoPatientID << '\n';
        // What was left out, by name, and what a person should know about the patients.
        for (const QString& file : skipped + c.skippedFiles)
            out << "skipped: " << file << '\n';
        for (const QString& note : c.notes)
            out << "note: " << note << '\n';
        out << "elapsed:           " << QString::number(c.elapsedMs / 1000.0, 'f', 2) << " s ("
            << (c.elapsedMs > 0 ? QString::number(c.filesListed * 1000.0 / c.elapsedMs, 'f', 0) : QString("-"))
            << " files/s)\n"
            << Qt::flush;
        // Files that stayed where they were (copies the storage did not take) are catalogued at
        // their source: said on stderr, the run still counts as done.
        for (const QString& error : qAsConst(errors)) {
            if (error.startsWith(QLatin1String("cannot copy")))
                QTextStream(stderr) << "kestrel import: warning: " << error << '\n';
        }
        if (!importer.lastImportSucceeded()) {
            status = app::fail("import", "import failed: " + importer.lastError());
        } else if (c.failedBatches) {
            status = app::fail("import", QString("%1 image batch(es) rejected by the database: %2")
                                                 .arg(c.failedBatches)
                                                 .arg(errors.value(errors.size() - 1)),
                               3);
        }
    }
    return status;
}

} // namespace

KESTREL_COMMAND("import", "import DICOM files and folders into the catalogue ([--copy] PATH...)", runImport);
