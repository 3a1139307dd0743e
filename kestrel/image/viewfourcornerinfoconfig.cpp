#include "viewfourcornerinfoconfig.h"

#include "kestrelpaths.h"

#include <QMutex>
#include <QMutexLocker>

#include <map>

namespace {

QMutex cacheMutex;

std::map<QString, std::shared_ptr<QSettings>>& settingsCache()
{
    static std::map<QString, std::shared_ptr<QSettings>> cache;
    return cache;
}

} // namespace

ViewFourCornerInfoConfig::ViewFourCornerInfoConfig() = default;

ViewFourCornerInfoConfig::ViewFourCornerInfoConfig(const ViewFourCornerInfoConfig& other) : QObject(other.parent()) {}

ViewFourCornerInfoConfig::~ViewFourCornerInfoConfig() = default;

std::shared_ptr<QSettings> ViewFourCornerInfoConfig::getSetting(QString modality, bool reload)
{
    QMutexLocker lock(&cacheMutex);
    auto& cache = settingsCache();
    auto it = cache.find(modality);
    if (it != cache.end() && !reload)
        return it->second;
    const QString path = Kestrel::configFilePath(QStringLiteral("viewinfo/modality/%1.ini").arg(modality));
    auto settings = std::make_shared<QSettings>(path, QSettings::IniFormat);
    cache[modality] = settings;
    return settings;
}

QStringList ViewFourCornerInfoConfig::parse(QString templateText)
{
    QStringList list;
    QString converted = templateText;
    int n = 1;
    int i = templateText.indexOf(QLatin1Char('{'));
    int j = templateText.indexOf(QLatin1Char('}'));
    while (i >= 0 && j >= 1) {
        // The braces are looked for in the text as given, so a field used twice is replaced
        // everywhere in the first round and still named once per use; a "}" before its "{"
        // yields the rest of the text as the name. Overlay files written for the viewer rely
        // on both, so they stay.
        list.append(templateText.mid(i + 1, j - i - 1));
        converted.replace(templateText.mid(i, j - i + 1), QStringLiteral("%%1").arg(n));
        ++n;
        i = templateText.indexOf(QLatin1Char('{'), j + 1);
        j = templateText.indexOf(QLatin1Char('}'), j + 1);
    }
    list.prepend(converted);
    return list;
}
