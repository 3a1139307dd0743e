#include "command.h"

#include "qdcmstoragescu.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/oflog/oflog.h>

#include <QCommandLineParser>
#include <QDirIterator>
#include <QFileInfo>
#include <QMap>
#include <QTextStream>

namespace {

int runSend(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Sends DICOM files to a storage provider, one association per series. Exits with 1\n"
                                     "when any file was refused by the peer or could not be read.");
    parser.addHelpOption();
    parser.addOption({"verbose", "Show DCMTK's network log."});
    parser.addOption({"host", "Peer host name or address.", "H", "127.0.0.1"});
    parser.addOption({"port", "Peer port.", "P"});
    parser.addOption({"aet", "AE title of both ends (as the application's send paths use it).", "AET"});
    parser.addOption({"peer-aet", "Peer AE title, when it differs from --aet.", "AET"});
    parser.addPositionalArgument("files", "DICOM files or folders (searched recursively).", "FILE_OR_DIR...");
    if (const auto status = app::parseArguments(parser, "send", args))
        return *status;
    // DCMTK logs every PDU at its default level; only warnings unless asked for.
    OFLog::configure(parser.isSet("verbose") ? OFLogger::INFO_LOG_LEVEL : OFLogger::WARN_LOG_LEVEL);
    bool ok = false;
    const int port = parser.value("port").toInt(&ok);
    if (!ok || port < 1 || port > 65535)
        return app::fail("send", "--port needs a port number between 1 and 65535");
    if (!parser.isSet("aet"))
        return app::fail("send", "--aet needs an AE title");
    if (parser.positionalArguments().isEmpty())
        return app::fail("send", "no files to send");

    QStringList files;
    for (const QString& arg : parser.positionalArguments()) {
        const QFileInfo info(arg);
        if (info.isDir()) {
            QDirIterator it(arg, QDir::Files, QDirIterator::Subdirectories);
            QStringList found;
            while (it.hasNext())
                found << it.next();
            found.sort();
            files += found;
        } else if (info.isFile()) {
            files << arg;
        } else {
            return app::fail("send", "no such file or folder: " + arg);
        }
    }

    QTextStream out(stdout);
    QTextStream err(stderr);
    QDcmStorageSCU* scu = QDcmStorageSCU::instance();
    const QString aet = parser.value("aet");
    scu->setPeerHostName(parser.value("host"));
    scu->setAETitle(aet);
    scu->setPeerAETitle(parser.isSet("peer-aet") ? parser.value("peer-aet") : aet);
    scu->setPeerPort(short(port & 0xffff));
    scu->SetSendConfig();

    int queued = 0, skipped = 0;
    for (const QString& file : qAsConst(files)) {
        const OFCondition added = scu->addDicomFile(file);
        if (added.good()) {
            ++queued;
        } else {
            ++skipped;
            err << "kestrel send: skipped " << file << ": " << added.text() << Qt::endl;
        }
    }
    if (queued == 0)
        return app::fail("send", "nothing to send");

    int sent = 0;
    QMap<QString, int> reasons;
    QObject::connect(scu, &QDcmStorageSCU::notifyInstanceSent, [&] {
        ++sent;
        out << "sent " << sent << "/" << queued << Qt::endl;
    });
    QObject::connect(scu, &QDcmStorageSCU::notifyInstanceWarning, [&](const QString& file, const QString& reason) {
        err << "kestrel send: stored with a warning: " << file << ": " << reason << Qt::endl;
    });
    QObject::connect(scu, &QDcmStorageSCU::notifyInstanceRefused, [&](const QString& file, const QString& reason) {
        ++reasons[reason];
        err << "kestrel send: refused " << file << ": " << reason << Qt::endl;
    });
    scu->onNotifySentDicomFiles();
    int refused = 0;
    QStringList why;
    for (auto it = reasons.constBegin(); it != reasons.constEnd(); ++it) {
        refused += it.value();
        why << (it.value() > 1 ? QString("%1 x %2").arg(it.value()).arg(it.key()) : it.key());
    }
    out << "sent " << sent << ", refused " << refused;
    if (refused > 0)
        out << " (" << why.join("; ") << ")";
    if (skipped > 0)
        out << ", skipped " << skipped << " unreadable";
    out << Qt::endl;
    if (refused > 0 || skipped > 0)
        return app::fail("send", QString("%1 of %2 files did not arrive at %3:%4")
                                     .arg(refused + skipped).arg(files.size()).arg(parser.value("host")).arg(port));
    return 0;
}

} // namespace

KESTREL_COMMAND("send", "send DICOM files to a storage provider (C-STORE SCU)", runSend);
