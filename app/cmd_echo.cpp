#include "command.h"

#include "qdcmstoragescu.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/oflog/oflog.h>

#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QTextStream>

namespace {

int runEcho(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Asks a DICOM node whether it answers (C-ECHO); exits with 0 when it does.");
    parser.addHelpOption();
    parser.addOption({"verbose", "Show DCMTK's network log."});
    parser.addOption({"host", "Peer host name or address.", "H", "127.0.0.1"});
    parser.addOption({"port", "Peer port.", "P"});
    parser.addOption({"aet", "AE title of both ends (as the send paths use it).", "AET"});
    parser.addOption({"peer-aet", "Peer AE title, when it differs from --aet.", "AET"});
    if (const auto status = app::parseArguments(parser, "echo", args))
        return *status;
    OFLog::configure(parser.isSet("verbose") ? OFLogger::INFO_LOG_LEVEL : OFLogger::FATAL_LOG_LEVEL);
    bool ok = false;
    const int port = parser.value("port").toInt(&ok);
    if (!ok || port < 1 || port > 65535)
        return app::fail("echo", "--port needs a port number between 1 and 65535");
    if (!parser.isSet("aet"))
        return app::fail("echo", "--aet needs an AE title");

    QDcmStorageSCU* scu = QDcmStorageSCU::instance();
    const QString aet = parser.value("aet");
    const QString peer = parser.isSet("peer-aet") ? parser.value("peer-aet") : aet;
    scu->setPeerHostName(parser.value("host"));
    scu->setAETitle(aet);
    scu->setPeerAETitle(peer);
    scu->setPeerPort(short(port & 0xffff));
    scu->SetSendConfig();
    QElapsedTimer clock;
    clock.start();
    const QString node = QString("%1 at %2:%3").arg(peer, parser.value("host")).arg(port);
    if (scu->echo() != 0)
        return app::fail("echo", node + " does not answer: " + scu->lastError());
    QTextStream(stdout) << node << " answers (" << clock.elapsed() << " ms)" << Qt::endl;
    return 0;
}

} // namespace

KESTREL_COMMAND("echo", "check that a DICOM node answers (C-ECHO SCU)", runEcho);
