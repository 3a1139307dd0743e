// kestrel anonymize [--settings INI] IN OUT and kestrel deanonymize IN OUT: a DICOM file, or every
// file under a folder with the tree mirrored under OUT, through the catalogue's mapping tables.
#include "catalog.h"
#include "command.h"

#include "qdcmanonymize.h"
#include "veldatabaseconnection.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/oflog/oflog.h>

#include <QCommandLineParser>
#include <QFileInfo>
#include <QSettings>
#include <QSqlDatabase>
#include <QTextStream>

#include <cstdio>
#include <memory>
#include <unistd.h>

namespace {

int run(const QStringList& args, bool restore)
{
    const QString name = restore ? "deanonymize" : "anonymize";
    QCommandLineParser parser;
    parser.setApplicationDescription(
            restore ? "Restores the original identity of anonymized DICOM files from the catalogue's mapping."
                    : "Writes anonymized copies of DICOM files by DICOM's Basic Application Level Confidentiality Profile\n"
                      "(dicom/basic-profile.tsv); what was removed or replaced is kept in the catalogue.\n"
                      "The profile's options are read from config/anonymize.ini, or from --settings.");
    parser.addHelpOption();
    if (!restore)
        parser.addOption({"settings", "INI file with the profile's options (keys of [options], as in config/anonymize.ini; missing = false).",
                          "INI"});
    parser.addOption({{"v", "verbose"}, "Show the library's diagnostic lines and DICOM parser warnings."});
    parser.addPositionalArgument("IN", "A DICOM file or a folder (walked with its sub-folders).");
    parser.addPositionalArgument("OUT", "The file to write, or the folder that receives the mirrored tree (may be IN itself).");
    if (const auto status = app::parseArguments(parser, name, args))
        return *status;
    const QStringList paths = parser.positionalArguments();
    if (paths.size() != 2)
        return app::fail(name, QString("expected IN and OUT (see 'kestrel %1 --help')").arg(name), 2);
    const QString in = paths.at(0), out = paths.at(1);
    if (!QFileInfo::exists(in))
        return app::fail(name, "no such file or folder: " + in, 2);
    if (QFileInfo(in).isDir() && QFileInfo(out).exists() && !QFileInfo(out).isDir())
        return app::fail(name, "IN is a folder but OUT is a file: " + out, 2);

    // Without --settings the library reads the shipped config/anonymize.ini.
    std::unique_ptr<QSettings> settings;
    if (!restore && parser.isSet("settings")) {
        const QString settingsPath = parser.value("settings");
        if (!QFileInfo(settingsPath).isFile())
            return app::fail(name, "no such settings file: " + settingsPath, 2);
        settings = std::make_unique<QSettings>(settingsPath, QSettings::IniFormat);
        if (settings->status() != QSettings::NoError)
            return app::fail(name, "cannot read the settings file " + settingsPath, 2);
    }

    if (parser.isSet("verbose"))
        app::setVerbose(true);
    else
        OFLog::configure(OFLogger::FATAL_LOG_LEVEL);

    // A MySQL catalogue created on this call needs a second connect.
    if (!app::openCatalog())
        return app::fail(name, app::catalogOpenError());

    int status = 0;
    {
        QDcmAnonymize anonymizer;
        anonymizer.setAnonymizeSetting(settings.get());
        const bool terminal = isatty(fileno(stdout));
        QTextStream progress(stdout);
        int lastPercent = -1;
        QObject::connect(&anonymizer, qOverload<int, int>(&QDcmAnonymize::sendAnonymizeProgressInfo), [&](int done, int total) {
            const int percent = total > 0 ? done * 100 / total : 100;
            if (terminal)
                progress << "\r" << done << "/" << total << " (" << percent << "%)" << Qt::flush;
            else if (percent / 10 != lastPercent / 10)
                progress << percent << "%\n" << Qt::flush;
            lastPercent = percent;
        });
        const QDcmAnonymize::BatchCounts counts = anonymizer.processPath(in, out, restore);
        if (terminal)
            progress << '\n' << Qt::flush;

        QTextStream report(stdout);
        report << "files found:       " << counts.files << '\n'
               << (restore ? "files restored:    " : "files anonymized:  ") << counts.written << '\n'
               << "not DICOM:         " << counts.unreadable << '\n'
               << "failed:            " << counts.failed << '\n'
               << Qt::flush;
        QTextStream errors(stderr);
        for (const QString& line : counts.failures)
            errors << "kestrel " << name << ": " << line << '\n';
        errors.flush();

        if (counts.files == 0)
            status = app::fail(name, "no file under " + in);
        else if (counts.failed > 0)
            status = 1;
        else if (counts.written == 0)
            status = app::fail(name, "nothing was written");
    }
    return status;
}

int runAnonymize(const QStringList& args)
{
    return run(args, false);
}

int runDeanonymize(const QStringList& args)
{
    return run(args, true);
}

} // namespace

KESTREL_COMMAND("anonymize", "write anonymized copies of DICOM files, mapping kept in the catalogue ([--settings INI] IN OUT)",
                runAnonymize);
KESTREL_COMMAND("deanonymize", "restore the identity of anonymized DICOM files from the catalogue (IN OUT)", runDeanonymize);
