#include "hierarchy/hierarchy_p.h"

#include "catalog/catalogschema_p.h"
#include "catalog/connection_p.h"

#include <QHash>
#include <QSqlDatabase>
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

QStringList cachedColumnNames(const QString& level, const QString& schema, const QStringList& tables)
{
    // Filled without locking: the hierarchy lives on the thread of the default connection.
    static QHash<QString, QStringList> cache;
    QSqlDatabase db = catalogDatabase();
    const QString key = level + '\n' + db.driverName() + '\n' + db.hostName() + '\n' + db.databaseName();
    const auto it = cache.constFind(key);
    if (it != cache.constEnd() && !it->isEmpty())
        return *it;

    QStringList names;
    const QStringList known = schema::tables();
    if (db.driverName() == QLatin1String("QSQLITE")) {
        for (const QString& table : tables) {
            if (!known.contains(table))
                continue;
            Statement query(db, QStringLiteral("PRAGMA table_info([%1])").arg(table));
            if (query.run())
                while (query.next())
                    names << query.get<QString>(1);
        }
    } else {
        QStringList markers;
        for (int i = 0; i < tables.size(); ++i)
            markers << QStringLiteral("table_Name = ?");
        Statement query(db, QStringLiteral("select column_name from Information_schema.columns where table_schema = ? and (%1)")
                                    .arg(markers.join(QLatin1String(" or "))));
        query.bind(schema).bindAll(QVariantList(tables.cbegin(), tables.cend()));
        if (query.run())
            while (query.next())
                names << query.get<QString>(0);
    }
    if (!names.isEmpty())
        cache.insert(key, names);
    return names;
}

void forEachRow(const QString& sql, const QVariantList& values, const std::function<void(const Statement&)>& row)
{
    Statement query(catalogDatabase(), sql);
    if (!query.bindAll(values).run())
        return;
    while (query.next())
        row(query);
}

} // namespace kestrel::internal
