#include "platform/fileplacement_p.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include <unistd.h>

namespace kestrel::internal {

bool sameContent(const QString& a, const QString& b)
{
    QFile fa(a), fb(b);
    if (fa.size() != fb.size() || !fa.open(QIODevice::ReadOnly) || !fb.open(QIODevice::ReadOnly))
        return false;
    while (!fa.atEnd()) {
        if (fa.read(1 << 20) != fb.read(1 << 20))
            return false;
    }
    return true;
}

QString partName(const QString& target)
{
    static std::atomic<int> serial{0};
    return QStringLiteral("%1.part-%2-%3").arg(target).arg(QCoreApplication::applicationPid()).arg(serial++);
}

Placement placeFile(const QString& part, const QString& target, bool keepPart)
{
    const QByteArray from = QFile::encodeName(part), to = QFile::encodeName(target);
    // link() succeeds only where nothing is: whoever comes first stays.
    const bool linked = ::link(from.constData(), to.constData()) == 0;
    const int error = errno;
    if (!linked && error != EEXIST && !QFileInfo::exists(target)) {
        // A file system without hard links: moved (or copied, when the part is to stay) into place
        // where nothing was a moment ago.
        if (keepPart)
            return QFile::copy(part, target) ? Placement::Placed : Placement::Failed;
        const bool moved = std::rename(from.constData(), to.constData()) == 0;
        QFile::remove(part);
        return moved ? Placement::Placed : Placement::Failed;
    }
    Placement result = Placement::Placed;
    if (!linked)
        result = QFileInfo(target).isFile() && sameContent(part, target) ? Placement::AlreadyThere
                 : QFileInfo::exists(target)                             ? Placement::OtherContent
                                                                         : Placement::Failed;
    if (!keepPart)
        QFile::remove(part);
    return result;
}

} // namespace kestrel::internal
