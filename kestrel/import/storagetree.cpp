#include "import/storagetree_p.h"

#include "kestrelpaths.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include <unistd.h>

namespace kestrel::internal::storage {

QString storageRoot()
{
    QString root;
    const QString ini = Kestrel::configFilePath(QStringLiteral("datasavepath.ini"));
    if (QFileInfo::exists(ini)) {
        root = QSettings(ini, QSettings::IniFormat).value(QStringLiteral("save/savepath")).toString();
        if (!root.isEmpty() && QDir::isRelativePath(root))
            root = QDir::cleanPath(Kestrel::applicationDir() + '/' + root);
    } else {
        root = Kestrel::applicationDir() + QStringLiteral("/saveDataPath/");
        if (!QFileInfo::exists(root))
            root = Kestrel::applicationDir() + QStringLiteral("/../saveDataPath/");
    }
    if (!root.isEmpty() && !QFileInfo::exists(root))
        QDir().mkdir(root);
    return root;
}

QString safeFolderName(const QString& name)
{
    QString safe = name.trimmed();
    for (QChar& c : safe) {
        const ushort u = c.unicode();
        const bool ok = (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') || u == '.' ||
                        u == '-' || u == '_';
        if (!ok)
            c = QLatin1Char('_');
    }
    if (safe.isEmpty() || safe == QLatin1String(".") || safe == QLatin1String(".."))
        safe = QStringLiteral("_");
    // File systems take names of at most 255 bytes: a longer value keeps its start and a digest
    // of the whole, so different values still get different folders.
    constexpr int kMaxName = 100;
    if (safe.size() > kMaxName) {
        const QByteArray digest = QCryptographicHash::hash(name.toUtf8(), QCryptographicHash::Sha1).toHex().left(16);
        safe = safe.left(kMaxName - 17) + QLatin1Char('_') + QString::fromLatin1(digest);
    }
    return safe;
}

QString subFolder(const QString& parent, const QString& name)
{
    // An empty parent (no storage root configured) keeps the tree relative to the working directory.
    const QString path = parent.isEmpty() ? safeFolderName(name) : QDir(parent).filePath(safeFolderName(name));
    if (!QFileInfo::exists(path))
        QDir().mkdir(path);
    return path;
}

bool copyOverwrite(const QString& from, const QString& to)
{
    if (QFileInfo(from).absoluteFilePath() == QFileInfo(to).absoluteFilePath())
        return true;
    if (!QFileInfo::exists(from))
        return false;
    // Copied beside the destination first: a copy that fails (disk full, unwritable folder) leaves
    // an existing destination as it was, so the rows naming it still find their file.
    const QString part = to + QStringLiteral(".part");
    QFile::remove(part);
    if (!QFile::copy(from, part)) {
        QFile::remove(part);
        return false;
    }
    if ((QFileInfo::exists(to) || QFileInfo(to).isSymLink()) && !QFile::remove(to)) {
        QFile::remove(part);
        return false;
    }
    if (!QFile::rename(part, to)) {
        QFile::remove(part);
        return false;
    }
    return true;
}

QString storedFileName(const QString& seriesDir, const QString& sopInstanceUID)
{
    return QDir(seriesDir).filePath(safeFolderName(sopInstanceUID) + QStringLiteral(".dcm"));
}

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

CopyResult storeCopy(const QString& from, const QString& to)
{
    if (QFileInfo(from).absoluteFilePath() == QFileInfo(to).absoluteFilePath())
        return CopyResult::AlreadyThere;
    if (!QFileInfo::exists(from))
        return CopyResult::Failed;
    const QFileInfo there(to);
    if (there.exists() && !there.isFile())
        return CopyResult::Failed; // a folder or another kind of entry holds the name
    if (there.exists())
        return sameContent(from, to) ? CopyResult::AlreadyThere : CopyResult::OtherContent;
    QDir().mkpath(QFileInfo(to).path());
    static std::atomic<int> serial{0};
    const QString part = QStringLiteral("%1.part-%2-%3").arg(to).arg(QCoreApplication::applicationPid()).arg(serial++);
    if (!QFile::copy(from, part)) {
        QFile::remove(part);
        return CopyResult::Failed;
    }
    // link() puts the copy in place only where nothing is: another process's copy that arrived
    // first stays, and ours goes.
    const QByteArray partName = QFile::encodeName(part), toName = QFile::encodeName(to);
    const bool linked = ::link(partName.constData(), toName.constData()) == 0;
    const int error = errno;
    if (!linked && error != EEXIST && !QFileInfo::exists(to)) {
        // A file system without hard links: moved into place where nothing was a moment ago.
        const bool moved = std::rename(partName.constData(), toName.constData()) == 0;
        QFile::remove(part);
        return moved ? CopyResult::Copied : CopyResult::Failed;
    }
    QFile::remove(part);
    if (linked)
        return CopyResult::Copied;
    if (error == EEXIST || QFileInfo::exists(to))
        return sameContent(from, to) ? CopyResult::AlreadyThere : CopyResult::OtherContent;
    return CopyResult::Failed;
}

void removeEmptyFolders(const QString& dir, int levels)
{
    QDir current(dir);
    for (int i = 0; i < levels; ++i) {
        const QString name = current.dirName();
        if (!current.cdUp() || !current.rmdir(name))
            return;
    }
}

} // namespace kestrel::internal::storage
