#include "hierarchy/hierarchy_p.h"

#include <QHash>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QVariant>

namespace kestrel::internal {

QVector<double> parseMultiValue(const QString& text)
{
    QVector<double> values;
    if (text.isEmpty())
        return values;
    QStringList parts = text.split(QStringLiteral("\\\\"), Qt::KeepEmptyParts, Qt::CaseSensitive);
    if (parts.size() == 1)
        parts = text.split(QLatin1Char('\\'), Qt::KeepEmptyParts, Qt::CaseSensitive);
    values.reserve(parts.size());
    for (const QString& part : parts) {
        bool ok = false;
        const double value = part.trimmed().toDouble(&ok); // QString::toDouble is locale-independent
        values.append(ok ? value : 0.0);
    }
    return values;
}

QStringList cachedColumnNames(const QString& level, const QString& schema, const QString& mysqlQuery,
                              const QStringList& sqliteQueries)
{
    // Filled without locking: the hierarchy lives on the thread of the default connection.
    static QHash<QString, QStringList> cache;
    QSqlDatabase db = QSqlDatabase::database();
    const QString key = level + '\n' + db.driverName() + '\n' + db.hostName() + '\n' + db.databaseName();
    const auto it = cache.constFind(key);
    if (it != cache.constEnd() && !it->isEmpty())
        return *it;

    QStringList names;
    {
        QSqlQuery query(db);
        query.setForwardOnly(true);
        if (query.exec(mysqlQuery.arg(schema)))
            while (query.next())
                names << query.value(0).toString();
    }
    if (names.isEmpty()) {
        for (const QString& pragma : sqliteQueries) {
            QSqlQuery query(db);
            query.setForwardOnly(true);
            if (query.exec(pragma))
                while (query.next())
                    names << query.value(1).toString();
        }
    }
    if (!names.isEmpty())
        cache.insert(key, names);
    return names;
}

} // namespace kestrel::internal
