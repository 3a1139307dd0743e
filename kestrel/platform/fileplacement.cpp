#include "platform/fileplacement_p.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
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
    // A rename that refuses to replace: one step where nothing is, and whoever comes first stays.
    // File systems without it answer EINVAL (or the kernel ENOSYS): link() does the same in two.
    if (::renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE) == 0)
        return Placement::Placed;
    int error = errno;
    if (error != EEXIST) {
        if (::link(from.constData(), to.constData()) == 0) {
            QFile::remove(part);
            return Placement::Placed;
        }
        error = errno;
    }
    if (error != EEXIST && !QFileInfo::exists(target)) {
        // A file system with neither: moved into place where nothing was a moment ago.
        const bool moved = std::rename(from.constData(), to.constData()) == 0;
        if (!moved && !keepPart)
            QFile::remove(part);
        return moved ? Placement::Placed : Placement::Failed;
    }
    const Placement result = QFileInfo(target).isFile() && sameContent(part, target) ? Placement::AlreadyThere
                             : QFileInfo::exists(target)                             ? Placement::OtherContent
                                                                                     : Placement::Failed;
    if (!keepPart)
        QFile::remove(part);
    return result;
}

} // namespace kestrel::internal
