#pragma once

#include <dcmtk/config/osconfig.h>
#include <dcmtk/oflog/oflog.h>

#include <QByteArray>
#include <QCoreApplication>
#include <QFile>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <unistd.h>

// Shared by the fuzz targets: a quiet Qt, one application object, and the input written to a file
// of this process (the entry points read files).
namespace fuzz {

inline void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

inline void setUp()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    qInstallMessageHandler(quiet);
    OFLog::configure(OFLogger::FATAL_LOG_LEVEL); // DCMTK's parser warnings on every input cost most of the time
    static int argc = 1;
    static char name[] = "fuzz";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
}

// DATA written to /tmp/kestrel-fuzz-<pid><SUFFIX>; the path.
inline QString writeInput(const uint8_t* data, size_t size, const char* suffix = ".dcm")
{
    const QString path = QString("/tmp/kestrel-fuzz-%1%2").arg(getpid()).arg(QLatin1String(suffix));
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(reinterpret_cast<const char*>(data), qint64(size));
    return path;
}

} // namespace fuzz
