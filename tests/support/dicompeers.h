#pragma once

// The network side of the tests: free loopback ports, DCMTK's storescu/storescp as peers, and a
// running storage provider of our own with the receive bookkeeping behind it.

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <memory>

class QDcmFiles;
class QDcmRecvFile;
class QDcmStorageSCP;
class QDicomService;

// A port that is free on the loopback right now (-1 when none could be had).
int freePort();

// Opens a TCP connection to PORT and writes BYTES (nothing when empty); true when it connected.
bool pokePort(int port, const QByteArray& bytes = QByteArray());

// A TCP connection to PORT that stays open and says nothing until the object goes.
struct SilentPeer {
    explicit SilentPeer(int port);
    ~SilentPeer();
    int fd = -1;
};

// An A-ASSOCIATE-RQ from CALLING to CALLED proposing Verification.
QByteArray associateRequest(const QByteArray& called, const QByteArray& calling);
// Writes BYTES to PORT and returns the PDU that comes back within TIMEOUTMS (less when the peer
// closes first or the time is up).
QByteArray exchangeRaw(int port, const QByteArray& bytes, int timeoutMs);

// The environment of the peers: Nagle off, so small exchanges are not held back.
QProcessEnvironment peerEnvironment();

// A DCMTK peer with its output dropped; killed with the object.
struct PeerProcess : QProcess {
    PeerProcess(const QString& program, const QStringList& args);
    ~PeerProcess() override;
    // Waits (event loop turning, so queued signals arrive) for the end; the exit code or < 0.
    int finish(int timeoutMs = 60000);
};

// storescu's arguments for sending FILES to the AE "KESTREL" on PORT of the loopback.
QStringList storescuArgs(int port, const QStringList& files, const QStringList& options = {});
// Runs storescu to the end (see PeerProcess::finish).
int storescu(int port, const QStringList& files, const QStringList& options = {});

// DCMTK's storescp receiving into DIR on a free port, ready when start() returns true.
struct Storescp {
    std::unique_ptr<PeerProcess> process;
    int port = freePort();
    bool start(const QString& dir, const QStringList& options = {});
};

// DCMTK's dcmrecv receiving into DIR on a free port with the association profile PROFILE of the
// configuration file CONFIG, ready when start() returns true.
struct Dcmrecv {
    std::unique_ptr<PeerProcess> process;
    int port = freePort();
    bool start(const QString& dir, const QString& config, const QString& profile, const QStringList& options = {});
};

// The kestrel host (next to the test) running COMMAND with ARGS, its standard output collected.
struct HostProcess {
    HostProcess(const QStringList& args);
    ~HostProcess();
    // Reads the output until TEXT has appeared TIMES times or the process ended; true when it did.
    bool readUntil(const QString& text, int times = 1, int timeoutMs = 15000);
    // SIGTERM and the exit code (< 0 when it did not end normally).
    int stop();
    QProcess process;
    QString out;
};

// Every file below DIR, sub-folders and hidden files included, sorted by path.
QStringList filesBelow(const QString& dir);

// The bookkeeping singleton on the current catalogue; gone before the catalogue closes.
struct RecvGuard {
    RecvGuard();
    ~RecvGuard();
    QDcmRecvFile* recv;
};

// A running provider of a fresh service as AE "KESTREL" on a free port, stopped and released at
// the end of the scope.
struct Provider {
    Provider();
    ~Provider();
    // Listens with OUTDIR as the receiving base; true once it accepts associations.
    bool start(const QString& outDir);
    QDicomService* service;
    QDcmStorageSCP* scp = nullptr;
    int port = freePort();
};

// The host's receiving chain: the provider hands every stored object to the bookkeeping, which
// hands each recorded series to an importer (database option on).
struct ReceivingChain {
    ReceivingChain();
    ~ReceivingChain();
    // Starts the provider with OUTDIR as the receiving base and connects the chain.
    bool start(const QString& outDir);
    RecvGuard guard; // released last
    Provider provider;
    std::unique_ptr<QDcmFiles> importer;
    QDcmRecvFile* recv() const { return guard.recv; }
};
