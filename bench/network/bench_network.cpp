// Receive throughput of `kestrel listen` (with its series bookkeeping) next to DCMTK's storescp,
// both fed by the same storescu command; of compressed objects next to dcmrecv; and send
// throughput of `kestrel send` next to storescu, both sending to the same storescp.
// Usage: bench_network [objects] [rows=columns] [rounds]
#include "syntheticdicom.h"
#include "testcatalog.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcuid.h>

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>

#include <arpa/inet.h>
#include <sys/resource.h>
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

// CPU seconds (user + system) of the children reaped so far.
double childrenCpu()
{
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU seconds (user + system) a running process has used.
double processCpu(qint64 pid)
{
    QFile stat(QString("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return fields.size() > 12 ? (fields[11].toLongLong() + fields[12].toLongLong()) / double(sysconf(_SC_CLK_TCK)) : -1;
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

// Best wall time and best CPU time of one side over the rounds.
struct Result {
    double wall = 1e9, cpu = 1e9;
    void add(double w, double c)
    {
        if (w > 0)
            wall = std::min(wall, w);
        if (c >= 0)
            cpu = std::min(cpu, c);
    }
    bool valid() const { return wall < 1e9; }
};

void line(const QString& name, const Result& r, int objects, double megabytes, const Result* reference)
{
    if (!r.valid()) {
        out << "  " << name.leftJustified(34) << "failed\n";
        return;
    }
    out << "  " << name.leftJustified(34) << QString::number(r.wall, 'f', 2).rightJustified(6) << " s "
        << QString::number(objects / r.wall, 'f', 0).rightJustified(6) << " obj/s "
        << QString::number(megabytes / r.wall, 'f', 1).rightJustified(6) << " MB/s "
        << QString::number(1000 * r.cpu / objects, 'f', 3).rightJustified(7) << " ms CPU/obj";
    if (reference && reference->valid())
        out << "   throughput " << QString::number(100.0 * reference->wall / r.wall, 'f', 0) << "%, CPU "
            << QString::number(100.0 * r.cpu / reference->cpu, 'f', 0) << "% of DCMTK's";
    out << Qt::endl;
}

// Copies of the compressed files of the shared transfer_syntaxes folder (RLE, JPEG lossless,
// JPEG-LS, JPEG 2000), COUNT in all, each with a SOP Instance UID of its own and one series per
// file, below DIR; the number written.
int writeCompressedCopies(const QString& dir, int count)
{
    const QString shared = sharedDataPath("transfer_syntaxes");
    if (shared.isEmpty())
        return 0;
    int written = 0;
    for (int n = 4; n <= 9; ++n) {
        DcmFileFormat format;
        if (format.loadFile(QFile::encodeName(QString("%1/%2.dcm").arg(shared).arg(n)).constData()).bad())
            continue;
        DcmDataset* ds = format.getDataset();
        ds->loadAllDataIntoMemory();
        char uid[100];
        ds->putAndInsertString(DCM_SeriesInstanceUID, dcmGenerateUniqueIdentifier(uid));
        const QString folder = QString("%1/ts%2").arg(dir).arg(n);
        QDir().mkpath(folder);
        for (int i = 0; i < count / 6; ++i) {
            ds->putAndInsertString(DCM_SOPInstanceUID, dcmGenerateUniqueIdentifier(uid));
            if (format.saveFile(QFile::encodeName(QString("%1/%2.dcm").arg(folder).arg(i)).constData()).good())
                ++written;
        }
    }
    return written;
}

// storescu's association profile for the copies: each compressed syntax in a context of its own,
// so that every object goes as it is stored.
QString writeCompressedProfile(const QString& file)
{
    QFile cfg(file);
    cfg.open(QIODevice::WriteOnly);
    cfg.write("[[TransferSyntaxes]]\n[RLE]\nTransferSyntax1 = RLELossless\n"
              "[JPEG]\nTransferSyntax1 = JPEGLossless:Non-hierarchical-1stOrderPrediction\n"
              "[JPEGLS]\nTransferSyntax1 = JPEGLSLossless\n[J2K]\nTransferSyntax1 = JPEG2000LosslessOnly\n"
              "[[PresentationContexts]]\n[Compressed]\nPresentationContext1 = MRImageStorage\\RLE\n"
              "PresentationContext2 = MRImageStorage\\JPEG\nPresentationContext3 = MRImageStorage\\JPEGLS\n"
              "PresentationContext4 = MRImageStorage\\J2K\n[[Profiles]]\n[Compressed]\nPresentationContexts = Compressed\n");
    return file;
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
    Result scpResult, listenResult, storescuResult, sendResult;
    for (int round = 0; round < rounds; ++round) {
        const QString tag = QString::number(round);
        // Receivers: wall time of the storescu run, CPU time the receiver spent meanwhile.
        for (const bool ours : {false, true}) {
            Peer receiver;
            const QString target = dir.filePath(QString("recv%1%2").arg(ours ? "k" : "d", tag));
            QDir().mkpath(target);
            const bool up = ours ? receiver.start(kestrel, {"--config", dir.filePath("config"), "listen", "--port",
                                                            QString::number(receiver.port), "--out", target})
                                 : receiver.start("storescp", {"-od", target, QString::number(receiver.port)});
            if (!up)
                continue;
            const double cpu0 = processCpu(receiver.process.processId());
            const double t = timedRun("storescu", scuArgs + QStringList{QString::number(receiver.port), "+sd", "+r",
                                                                         dir.filePath("src")});
            const double cpu = processCpu(receiver.process.processId()) - cpu0;
            if (t > 0 && countFiles(target) == sent)
                (ours ? listenResult : scpResult).add(t, cpu);
        }
        // Senders: wall and CPU time of the sending process, storescp receiving.
        for (const bool ours : {false, true}) {
            Peer scp;
            const QString target = dir.filePath(QString("send%1%2").arg(ours ? "k" : "d", tag));
            QDir().mkpath(target);
            if (!scp.start("storescp", {"-od", target, QString::number(scp.port)}))
                continue;
            const double cpu0 = childrenCpu();
            const double t = ours ? timedRun(kestrel, {"send", "--port", QString::number(scp.port), "--aet", "ANY",
                                                       dir.filePath("src")})
                                  : timedRun("storescu", scuArgs + QStringList{QString::number(scp.port), "+sd", "+r",
                                                                               dir.filePath("src")});
            const double cpu = childrenCpu() - cpu0;
            if (t > 0 && countFiles(target) == sent)
                (ours ? sendResult : storescuResult).add(t, cpu);
        }
    }
    // Compressed objects, stored as they come: kestrel listen next to dcmrecv (bit-preserving, as
    // Kestrel stores).
    const int compressed = writeCompressedCopies(dir.filePath("compressed"), objects / 4);
    const QString profile = writeCompressedProfile(dir.filePath("compressed.cfg"));
    double compressedMb = 0;
    for (QDirIterator it(dir.filePath("compressed"), QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
        compressedMb += QFileInfo(it.next()).size() / 1e6;
    Result dcmrecvResult, listenCompressedResult;
    for (int round = 0; compressed > 0 && round < rounds; ++round) {
        for (const bool ours : {false, true}) {
            Peer receiver;
            const QString target = dir.filePath(QString("recvc%1%2").arg(ours ? "k" : "d").arg(round));
            QDir().mkpath(target);
            const bool up = ours ? receiver.start(kestrel, {"--config", dir.filePath("config"), "listen", "--port",
                                                            QString::number(receiver.port), "--out", target})
                                 : receiver.start("dcmrecv", {"-xf", "/etc/dcmtk/storescp.cfg", "Default", "+B", "-od",
                                                              target, QString::number(receiver.port)});
            if (!up)
                continue;
            const double cpu0 = processCpu(receiver.process.processId());
            const double t = timedRun("storescu", scuArgs + QStringList{QString::number(receiver.port), "-xf", profile,
                                                                         "Compressed", "+sd", "+r",
                                                                         dir.filePath("compressed")});
            const double cpu = processCpu(receiver.process.processId()) - cpu0;
            if (t > 0 && countFiles(target) == compressed)
                (ours ? listenCompressedResult : dcmrecvResult).add(t, cpu);
        }
    }

    out << "receive (sender: storescu)\n";
    line("storescp", scpResult, sent, mb, nullptr);
    line("kestrel listen (with bookkeeping)", listenResult, sent, mb, &scpResult);
    if (compressed > 0) {
        out << "receive compressed: " << compressed << " copies of the shared RLE, JPEG lossless, JPEG-LS and JPEG 2000 "
            << "files (" << QString::number(compressedMb, 'f', 1) << " MB; sender: storescu)\n";
        line("dcmrecv (bit-preserving)", dcmrecvResult, compressed, compressedMb, nullptr);
        line("kestrel listen (with bookkeeping)", listenCompressedResult, compressed, compressedMb, &dcmrecvResult);
    } else {
        out << "receive compressed: left out, the shared transfer_syntaxes files are not there\n";
    }
    out << "send (receiver: storescp)\n";
    line("storescu", storescuResult, sent, mb, nullptr);
    line("kestrel send", sendResult, sent, mb, &storescuResult);
    return 0;
}
