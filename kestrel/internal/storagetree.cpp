#include "internal/storagetree.h"

#include "kestrelpaths.h"

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
    if (QFileInfo::exists(to))
        QFile::remove(to);
    return QFile::copy(from, to);
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
