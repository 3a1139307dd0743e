#include "import/storagetree_p.h"

#include "kestrelpaths.h"
#include "platform/fileplacement_p.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>



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
    const QString part = partName(to);
    if (!QFile::copy(from, part)) {
        QFile::remove(part);
        return CopyResult::Failed;
    }
    switch (placeFile(part, to)) {
    case Placement::Placed: return CopyResult::Copied;
    case Placement::AlreadyThere: return CopyResult::AlreadyThere;
    case Placement::OtherContent: return CopyResult::OtherContent;
    case Placement::Failed: break;
    }
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
