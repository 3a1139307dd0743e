#include "kestrelpaths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace {
QString& overrideDirectory()
{
    static QString dir;
    return dir;
}
} // namespace

namespace Kestrel {

QString applicationDir()
{
    return QCoreApplication::applicationDirPath();
}

QString configFilePath(const QString& name)
{
    if (!overrideDirectory().isEmpty())
        return QDir(overrideDirectory()).filePath(name);
    const QString beside = applicationDir() + "/config/" + name;
    if (QFileInfo::exists(beside))
        return beside;
    const QString above = applicationDir() + "/../config/" + name;
    if (QFileInfo::exists(above))
        return above;
    return beside;
}

void setConfigDirectory(const QString& dir)
{
    overrideDirectory() = dir;
}

QString configDirectory()
{
    return overrideDirectory();
}

} // namespace Kestrel
