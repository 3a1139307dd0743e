#include "dicompeers.h"
#include "programs.h"

#include "qdcmfiles.h"
#include "qdcmrecvfile.h"
#include "qdcmstoragescp.h"
#include "qdicomservice.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QtEndian>
#include <QtTest>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

sockaddr_in loopback(int port)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(quint16(port));
    return addr;
}

} // namespace

int freePort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    const bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0
                    && ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    ::close(fd);
    return ok ? ntohs(addr.sin_port) : -1;
}

bool pokePort(int port, const QByteArray& bytes)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in addr = loopback(port);
    const bool ok = ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
    if (ok && !bytes.isEmpty())
        (void)!::write(fd, bytes.constData(), size_t(bytes.size()));
    ::close(fd);
    return ok;
}

SilentPeer::SilentPeer(int port)
{
    fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in addr = loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        fd = -1;
    }
}

SilentPeer::~SilentPeer()
{
    if (fd >= 0)
        ::close(fd);
}

QByteArray associateRequest(const QByteArray& called, const QByteArray& calling)
{
    auto item = [](char type, const QByteArray& value) {
        QByteArray out;
        out.append(type).append('\0');
        out.append(char(value.size() >> 8)).append(char(value.size() & 0xff));
        return out + value;
    };
    const QByteArray context = QByteArray::fromHex("01000000") + item('\x30', "1.2.840.10008.1.1")
                               + item('\x40', "1.2.840.10008.1.2");
    const QByteArray body = QByteArray::fromHex("00010000") + called.leftJustified(16, ' ', true)
                            + calling.leftJustified(16, ' ', true) + QByteArray(32, '\0')
                            + item('\x10', "1.2.840.10008.3.1.1.1") + item('\x20', context)
                            + item('\x50', item('\x51', QByteArray::fromHex("00004000")));
    QByteArray pdu = QByteArray::fromHex("0100");
    for (int shift = 24; shift >= 0; shift -= 8)
        pdu.append(char((body.size() >> shift) & 0xff));
    return pdu + body;
}

QByteArray exchangeRaw(int port, const QByteArray& bytes, int timeoutMs)
{
    SilentPeer peer(port);
    QByteArray answer;
    if (peer.fd < 0 || ::write(peer.fd, bytes.constData(), size_t(bytes.size())) != bytes.size())
        return answer;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < timeoutMs) {
        pollfd readable{peer.fd, POLLIN, 0};
        if (::poll(&readable, 1, 50) <= 0)
            continue;
        char buffer[256];
        const ssize_t n = ::read(peer.fd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        answer.append(buffer, int(n));
        // One whole PDU is the answer.
        if (answer.size() >= 6) {
            const auto* head = reinterpret_cast<const uchar*>(answer.constData());
            if (answer.size() >= 6 + int(qFromBigEndian<quint32>(head + 2)))
                break;
        }
    }
    return answer;
}

QProcessEnvironment peerEnvironment()
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("TCP_NODELAY", "1");
    return env;
}

PeerProcess::PeerProcess(const QString& program, const QStringList& args)
{
    setProcessEnvironment(peerEnvironment());
    setStandardOutputFile(QProcess::nullDevice());
    setStandardErrorFile(QProcess::nullDevice());
    start(program, args);
    waitForStarted(10000);
}

PeerProcess::~PeerProcess()
{
    kill();
    waitForFinished(5000);
}

int PeerProcess::finish(int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (state() != QProcess::NotRunning && clock.elapsed() < timeoutMs)
        QTest::qWait(20);
    if (state() != QProcess::NotRunning)
        return -1;
    return exitStatus() == QProcess::NormalExit ? exitCode() : -2;
}

QStringList storescuArgs(int port, const QStringList& files, const QStringList& options)
{
    return options + QStringList{"-aec", "KESTREL", "127.0.0.1", QString::number(port)} + files;
}

int storescu(int port, const QStringList& files, const QStringList& options)
{
    return PeerProcess("storescu", storescuArgs(port, files, options)).finish();
}

bool Storescp::start(const QString& dir, const QStringList& options)
{
    process = std::make_unique<PeerProcess>("storescp",
                                            options + QStringList{"-aet", "PEER", "-od", dir, QString::number(port)});
    for (int i = 0; i < 100; ++i) {
        if (pokePort(port))
            return true;
        QTest::qWait(50);
    }
    return false;
}

bool Dcmrecv::start(const QString& dir, const QString& config, const QString& profile, const QStringList& options)
{
    process = std::make_unique<PeerProcess>("dcmrecv", options + QStringList{"-aet", "DCMRECV", "-xf", config, profile,
                                                                             "-od", dir, QString::number(port)});
    for (int i = 0; i < 100; ++i) {
        if (pokePort(port))
            return true;
        QTest::qWait(50);
    }
    return false;
}

HostProcess::HostProcess(const QStringList& args)
{
    process.setProcessEnvironment(peerEnvironment());
    process.start(hostProgram(), args);
    process.waitForStarted(10000);
}

HostProcess::~HostProcess()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

bool HostProcess::readUntil(const QString& text, int times, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (out.count(text) < times && clock.elapsed() < timeoutMs) {
        if (process.state() == QProcess::NotRunning) {
            out += QString::fromUtf8(process.readAllStandardOutput());
            break;
        }
        process.waitForReadyRead(100);
        out += QString::fromUtf8(process.readAllStandardOutput());
    }
    return out.count(text) >= times;
}

int HostProcess::stop()
{
    process.terminate();
    if (!process.waitForFinished(15000))
        return -1;
    out += QString::fromUtf8(process.readAllStandardOutput());
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
}

QStringList filesBelow(const QString& dir)
{
    QStringList files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << it.next();
    files.sort();
    return files;
}

RecvGuard::RecvGuard() : recv(QDcmRecvFile::instance()) {}

RecvGuard::~RecvGuard()
{
    delete recv;
}

Provider::Provider() : service(QDicomService::instance()) {}

Provider::~Provider()
{
    service->destroyAllstoreScp();
    service->stop();
}

bool Provider::start(const QString& outDir)
{
    // The service makes only the dated folder below an existing base.
    QDir().mkpath(outDir);
    service->setPort(short(port));
    service->setAETitle("KESTREL");
    service->setOutputDirectory(outDir + "/");
    scp = service->listen();
    QElapsedTimer clock;
    clock.start();
    while (!scp->isAccepting() && clock.elapsed() < 10000)
        QTest::qWait(20);
    return scp->isAccepting();
}

ReceivingChain::ReceivingChain() : importer(std::make_unique<QDcmFiles>()) {}

ReceivingChain::~ReceivingChain() = default;

bool ReceivingChain::start(const QString& outDir)
{
    guard.recv->setUserOption(true, false, false);
    if (!provider.start(outDir))
        return false;
    QObject::connect(provider.scp, &QDcmStorageSCP::notifyInstanceSaved, guard.recv,
                     &QDcmRecvFile::onNotifyInstanceSaved);
    QObject::connect(guard.recv, &QDcmRecvFile::notifyUploadDB, importer.get(), &QDcmFiles::onNotifyUploadDB);
    return true;
}
