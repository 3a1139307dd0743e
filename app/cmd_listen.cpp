#include "catalog.h"
#include "command.h"

#include "qdcmrecvfile.h"
#include "qdcmstoragescp.h"
#include "qdicomservice.h"
#include "veldatabaseconnection.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/oflog/oflog.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QTextStream>
#include <QTimer>

#include <csignal>
#include <memory>
#include <mutex>
#include <vector>

// Defined by the build when the importer is part of the library.
#include "qdcmfiles.h"

namespace {

volatile std::sig_atomic_t g_stopSignal = 0;

void onStopSignal(int signal)
{
    g_stopSignal = signal;
}

int runListen(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Receives DICOM objects as a storage provider and records each finished series.");
    parser.addHelpOption();
    parser.addOption({"verbose", "Show DCMTK's network log."});
    parser.addOption({"port", "Port to listen on.", "P"});
    parser.addOption({"aet", "Own AE title.", "AET", "KESTREL"});
    parser.addOption({"out", "Base folder; objects go to DIR/yyyy-MM-dd/ below it.", "DIR"});
    parser.addOption({"import", "Import every recorded series into the catalogue."});
    parser.addOption({"seconds", "Stop after N seconds.", "N"});
    if (const auto status = app::parseArguments(parser, "listen", args))
        return *status;
    // DCMTK logs every PDU at its default level; only warnings unless asked for.
    OFLog::configure(parser.isSet("verbose") ? OFLogger::INFO_LOG_LEVEL : OFLogger::WARN_LOG_LEVEL);
    bool ok = false;
    const int port = parser.value("port").toInt(&ok);
    if (!ok || port < 1 || port > 65535)
        return app::fail("listen", "--port needs a port number between 1 and 65535");
    if (!parser.isSet("out"))
        return app::fail("listen", "--out needs the folder that receives the objects");
    int seconds = -1;
    if (parser.isSet("seconds")) {
        seconds = parser.value("seconds").toInt(&ok);
        if (!ok || seconds < 0)
            return app::fail("listen", "--seconds needs a whole number of seconds");
    }

    QString out = QDir(parser.value("out")).absolutePath();
    if (!QDir().mkpath(out))
        return app::fail("listen", "cannot create " + out);
    if (!out.endsWith('/'))
        out += '/';

    // A MySQL catalogue created on this call needs a second connect.
    if (!app::openCatalog())
        return app::fail("listen", app::catalogOpenError());

    QTextStream stdOut(stdout);
    QDcmRecvFile* recv = QDcmRecvFile::instance();
    recv->setUserOption(true, false, false);
    QObject::connect(recv, &QDcmRecvFile::notifyUploadDB, [&stdOut](const QString& uid) {
        stdOut << "recorded series " << uid << Qt::endl;
    });

    // The importer takes every recorded series from the `images` queue into the catalogue.
    std::unique_ptr<QDcmFiles> importer;
    if (parser.isSet("import")) {
        importer = std::make_unique<QDcmFiles>();
        QObject::connect(recv, &QDcmRecvFile::notifyUploadDB, importer.get(), &QDcmFiles::onNotifyUploadDB);
        QObject::connect(recv, &QDcmRecvFile::notifyUploadDB, [&stdOut](const QString& uid) {
            const int imported = getImportedImageCount(uid);
            stdOut << "imported series " << uid << " (" << imported << " images)" << Qt::endl;
        });
    }

    QDicomService* service = QDicomService::instance();
    service->setPort(short(port));
    service->setAETitle(parser.value("aet"));
    service->setOutputDirectory(out);
    QDcmStorageSCP* provider = service->listen();

    // The provider signals from its worker thread; everything printed here runs queued in the
    // main thread (recv is the context object living there).
    int status = 0;
    bool announced = false;
    auto announce = [&] {
        if (announced)
            return;
        announced = true;
        stdOut << "listening on port " << port << " as " << parser.value("aet") << ", receiving into "
               << provider->outputDirectory() << Qt::endl;
    };
    bool ended = false;
    auto finished = [&](int code, const QString& message) {
        if (ended)
            return;
        ended = true;
        if (code != 0) {
            status = 1;
            app::fail("listen", "the provider stopped: " + message);
        }
        QCoreApplication::quit();
    };
    QObject::connect(provider, &QDcmStorageSCP::notifyListening, recv, announce);
    // Stored objects reach the main thread in batches: the worker queues them and wakes the main
    // thread once, which takes what has come a few milliseconds later. Waking it for every
    // object cost both threads more than the bookkeeping itself.
    struct Stored {
        QString file, sop, series;
    };
    std::mutex storedLock;
    std::vector<Stored> stored;
    bool drainPending = false;
    auto drain = [&] {
        std::vector<Stored> batch;
        {
            std::lock_guard<std::mutex> lock(storedLock);
            batch.swap(stored);
            drainPending = false;
        }
        for (const Stored& s : batch) {
            recv->onNotifyInstanceSaved(s.file, QString(), s.sop, s.series);
            stdOut << "stored " << s.file << " " << s.sop << " " << s.series << '\n';
        }
        stdOut.flush();
    };
    QTimer drainTimer;
    drainTimer.setSingleShot(true);
    drainTimer.setInterval(4);
    QObject::connect(&drainTimer, &QTimer::timeout, recv, drain);
    QObject::connect(
        provider, &QDcmStorageSCP::notifyInstanceSaved, recv,
        [&](const QString& file, const QString&, const QString& sop, const QString& series) {
            {
                std::lock_guard<std::mutex> lock(storedLock);
                stored.push_back({file, sop, series});
                if (drainPending)
                    return;
                drainPending = true;
            }
            QMetaObject::invokeMethod(&drainTimer, "start", Qt::QueuedConnection);
        },
        Qt::DirectConnection);
    QObject::connect(provider, &QDcmStorageSCP::notifyListenFinished, recv, finished);
    // The worker may have got that far before the connections were made.
    if (provider->isAccepting())
        QTimer::singleShot(0, recv, announce);
    if (provider->lastListenStatus() != 0)
        QTimer::singleShot(0, recv, [&] { finished(provider->lastListenStatus(), "cannot listen"); });

    std::signal(SIGINT, onStopSignal);
    std::signal(SIGTERM, onStopSignal);
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [] {
        if (g_stopSignal)
            QCoreApplication::quit();
    });
    poll.start(100);
    if (seconds >= 0)
        QTimer::singleShot(seconds * 1000, [] { QCoreApplication::quit(); });

    QCoreApplication::exec();

    service->destroyAllstoreScp();
    // Objects announced just before the stop are still queued; record their series now rather
    // than lose them with the pending timer.
    QCoreApplication::processEvents();
    drain();
    if (recv->isToDataBase())
        recv->onTimerSlot();
    stdOut << "stopped" << Qt::endl;
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    return status;
}

} // namespace

KESTREL_COMMAND("listen", "receive DICOM objects as a storage provider (C-STORE SCP)", runListen);
