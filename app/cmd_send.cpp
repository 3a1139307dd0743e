#include "command.h"

#include "qdcmstoragescu.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/oflog/oflog.h>

#include <QCommandLineParser>
#include <QDirIterator>
#include <QFileInfo>
#include <QTextStream>

namespace {

int runSend(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Sends DICOM files to a storage provider in one association.");
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

    int queued = 0;
    for (const QString& file : qAsConst(files)) {
        if (scu->onNotifyAddOneDicomFile(file) == 0)
            ++queued;
        else
            err << "kestrel send: skipped " << file << ": not a readable DICOM file" << Qt::endl;
    }
    if (queued == 0)
        return app::fail("send", "nothing to send");

    int sent = 0;
    QObject::connect(scu, &QDcmStorageSCU::notifyInstanceSent, [&] {
        ++sent;
        out << "sent " << sent << "/" << queued << Qt::endl;
    });
    const int result = scu->onNotifySentDicomFiles();
    out << "sent " << sent << " of " << files.size() << " files" << Qt::endl;
    if (result != 0)
        return app::fail("send", QString("the transfer to %1:%2 failed").arg(parser.value("host")).arg(port));
    return 0;
}

} // namespace

KESTREL_COMMAND("send", "send DICOM files to a storage provider (C-STORE SCU)", runSend);
