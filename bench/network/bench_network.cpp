// Receive throughput of `kestrel listen` (with its series bookkeeping) next to DCMTK's storescp,
// both fed by the same storescu command, and send throughput of `kestrel send` next to storescu,
// both sending to the same storescp. Usage: bench_network [objects] [rows=columns] [rounds]
#include "syntheticdicom.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace {

QTextStream out(stdout);

int freePort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    int port = -1;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0
        && ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    ::close(fd);
    return port;
}

bool portOpen(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(quint16(port));
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

QProcessEnvironment environment()
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("TCP_NODELAY", "1");
    return env;
}

// Wall time of one run of PROGRAM, -1 on failure.
double timedRun(const QString& program, const QStringList& args)
{
    QProcess process;
    process.setProcessEnvironment(environment());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    QElapsedTimer clock;
    clock.start();
    process.start(program, args);
    if (!process.waitForFinished(600000) || process.exitCode() != 0)
        return -1;
    return clock.nsecsElapsed() / 1e9;
}

struct Peer {
    QProcess process;
    int port = freePort();
    bool start(const QString& program, const QStringList& args)
    {
        process.setProcessEnvironment(environment());
        process.setStandardOutputFile(QProcess::nullDevice());
        process.setStandardErrorFile(QProcess::nullDevice());
        process.start(program, args);
        if (!process.waitForStarted(10000))
            return false;
        for (int i = 0; i < 200; ++i) {
            if (portOpen(port))
                return true;
            QThread::msleep(50);
        }
        return false;
    }
    ~Peer()
    {
        process.terminate();
        if (!process.waitForFinished(15000)) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
};

int countFiles(const QString& dir)
{
    int n = 0;
    QDirIterator it(dir, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        ++n;
    }
    return n;
}

void line(const QString& name, double seconds, int objects, double megabytes, double reference)
{
    if (seconds <= 0) {
        out << "  " << name.leftJustified(34) << "failed\n";
        return;
    }
    out << "  " << name.leftJustified(34) << QString::number(seconds, 'f', 2).rightJustified(7) << " s "
        << QString::number(objects / seconds, 'f', 0).rightJustified(7) << " obj/s "
        << QString::number(megabytes / seconds, 'f', 1).rightJustified(7) << " MB/s";
    if (reference > 0)
        out << "   " << QString::number(100.0 * reference / seconds, 'f', 0) << "% of DCMTK";
    out << Qt::endl;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int objects = args.size() > 1 ? args[1].toInt() : 2000;
    const int size = args.size() > 2 ? args[2].toInt() : 128;
    const int rounds = args.size() > 3 ? args[3].toInt() : 5;
    const QString kestrel = QCoreApplication::applicationDirPath() + "/kestrel";

    QTemporaryDir dir;
    // Four series of a quarter each: the bookkeeping records three of them while objects arrive.
    SyntheticImage image;
    image.rows = image.columns = size;
    for (int s = 0; s < 4; ++s) {
        image.seriesNumber = s + 1;
        image.seriesUid.clear();
        writeSyntheticSeries(dir.filePath(QString("src/s%1").arg(s)), image, objects / 4);
    }
    const int sent = countFiles(dir.filePath("src"));
    qint64 bytes = 0;
    for (QDirIterator it(dir.filePath("src"), QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
        bytes += QFileInfo(it.next()).size();
    const double mb = bytes / 1e6;

    // A private SQLite catalogue for the listener (the name is relative to the program's folder).
    QDir().mkpath(dir.filePath("config"));
    QFile ini(dir.filePath("config/database.ini"));
    ini.open(QIODevice::WriteOnly);
    ini.write(QString("[currentdatabase]\ndbname=bench\n[bench]\ndatabaseType=QSQLITE\ndatabaseName=%1\n")
                  .arg(QDir(QCoreApplication::applicationDirPath()).relativeFilePath(dir.filePath("bench.sqlite")))
                  .toUtf8());
    ini.close();

    out << "DICOM network throughput, " << sent << " objects of " << size << "x" << size << " (" 
        << QString::number(mb, 'f', 1) << " MB), best of " << rounds << " rounds, loopback, TCP_NODELAY=1\n";
    const QStringList scuArgs{"-aec", "ANY", "127.0.0.1"};
    double bestScp = 1e9, bestListen = 1e9, bestStorescu = 1e9, bestSend = 1e9;
    for (int round = 0; round < rounds; ++round) {
        const QString tag = QString::number(round);
        {
            Peer scp;
            QDir().mkpath(dir.filePath("scp" + tag));
            if (scp.start("storescp", {"-od", dir.filePath("scp" + tag), QString::number(scp.port)})) {
                const double t = timedRun("storescu", scuArgs + QStringList{QString::number(scp.port), "+sd", "+r",
                                                                             dir.filePath("src")});
                if (t > 0 && countFiles(dir.filePath("scp" + tag)) == sent)
                    bestScp = std::min(bestScp, t);
            }
        }
        {
            Peer listen;
            if (listen.start(kestrel, {"--config", dir.filePath("config"), "listen", "--port",
                                       QString::number(listen.port), "--out", dir.filePath("listen" + tag)})) {
                const double t = timedRun("storescu", scuArgs + QStringList{QString::number(listen.port), "+sd", "+r",
                                                                             dir.filePath("src")});
                if (t > 0 && countFiles(dir.filePath("listen" + tag)) == sent)
                    bestListen = std::min(bestListen, t);
            }
        }
        for (const bool ours : {false, true}) {
            Peer scp;
            const QString target = dir.filePath(QString("send%1%2").arg(ours ? "k" : "d", tag));
            QDir().mkpath(target);
            if (!scp.start("storescp", {"-od", target, QString::number(scp.port)}))
                continue;
            const double t = ours ? timedRun(kestrel, {"send", "--port", QString::number(scp.port), "--aet", "ANY",
                                                       dir.filePath("src")})
                                  : timedRun("storescu", scuArgs + QStringList{QString::number(scp.port), "+sd", "+r",
                                                                               dir.filePath("src")});
            if (t > 0 && countFiles(target) == sent)
                (ours ? bestSend : bestStorescu) = std::min(ours ? bestSend : bestStorescu, t);
        }
    }
    auto value = [](double t) { return t < 1e9 ? t : -1.0; };
    out << "receive (sender: storescu)\n";
    line("storescp", value(bestScp), sent, mb, -1);
    line("kestrel listen (with bookkeeping)", value(bestListen), sent, mb, value(bestScp));
    out << "send (receiver: storescp)\n";
    line("storescu", value(bestStorescu), sent, mb, -1);
    line("kestrel send", value(bestSend), sent, mb, value(bestStorescu));
    return 0;
}
