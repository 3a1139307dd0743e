#include "hierarchy/storedsearch_p.h"

#include "catalog/catalogschema_p.h"
#include "catalog/statement_p.h"

namespace kestrel::internal {

namespace {

const QStringList& operators()
{
    static const QStringList list{QStringLiteral("="),  QStringLiteral("<>"), QStringLiteral("!="),
                                  QStringLiteral("<"),  QStringLiteral("<="), QStringLiteral(">"),
                                  QStringLiteral(">="), QStringLiteral("like"), QStringLiteral("not like")};
    return list;
}

// The schema's spelling of TABLE (one of the levels), empty when unknown.
QString knownTable(const QString& table)
{
    for (const QString& level : searchLevelTables())
        if (level.compare(table.trimmed(), Qt::CaseInsensitive) == 0)
            return level;
    return QString();
}

// The schema's spelling of COLUMN of TABLE, the key `pk` included; empty when TABLE has none.
QString knownColumn(const QString& table, const QString& column)
{
    const QString name = column.trimmed();
    if (name.compare(QLatin1String("pk"), Qt::CaseInsensitive) == 0)
        return QStringLiteral("pk");
    for (const QString& known : schema::columns(table))
        if (known.compare(name, Qt::CaseInsensitive) == 0)
            return known;
    return QString();
}

// Builds the statement and its readable text side by side.
class Builder
{
public:
    void add(const QString& part)
    {
        m_out.sql += part;
        m_out.text += part;
    }
    void addValue(const QString& value)
    {
        m_out.sql += QLatin1Char('?');
        m_out.text += QLatin1Char('\'') + QString(value).replace(QLatin1Char('\''), QLatin1String("''")) + QLatin1Char('\'');
        // Never a null string: drivers bind that as NULL.
        m_out.values << QVariant(value.isEmpty() ? QStringLiteral("") : value);
    }
    SearchStatement result() const { return m_out; }

private:
    SearchStatement m_out;
};

// One condition: a value compared as its operator says, or found inside the column for any other
// match kind. An empty value asks for an empty column, and "=" and "like" take an absent one
// (NULL) for empty too.
void addCondition(Builder& b, const QString& column, const QString& op, const QString& value, bool precise)
{
    const bool orNull = value.isEmpty() && (!precise || op == QLatin1String("=") || op == QLatin1String("like"));
    if (orNull)
        b.add(QStringLiteral("("));
    b.add(column + QLatin1Char(' ') + (precise ? op : QStringLiteral("like")) + QLatin1Char(' '));
    b.addValue(precise ? value : QLatin1Char('%') + value + QLatin1Char('%'));
    if (orNull)
        b.add(QStringLiteral(" or %1 is null)").arg(column));
}

} // namespace

const QStringList& searchLevelTables()
{
    static const QStringList tables{QStringLiteral("patient"), QStringLiteral("generalstudy"), QStringLiteral("generalseries"),
                                    QStringLiteral("imageformat")};
    return tables;
}

Status readStoredSearch(QSqlDatabase db, const QString& name, QList<SearchCondition>* conditions)
{
    Statement query(db, QStringLiteral("SELECT TableName, ColumnName, Operator, Value, Connector, MatchKind FROM andvancequiry "
                                       "WHERE InquiryName = ? ORDER BY pk"));
    if (const Status status = query.bind(name).run(); !status)
        return status.context(QStringLiteral("reading the stored search \"%1\": ").arg(name));
    conditions->clear();
    while (query.next())
        conditions->append({query.get<QString>(0), query.get<QString>(1), query.get<QString>(2), query.get<QString>(3),
                            query.get<QString>(4), query.get<QString>(5)});
    if (conditions->isEmpty())
        return Status(Status::NotFound, QStringLiteral("no stored search named \"%1\"").arg(name));
    return Status::ok();
}

bool searchesImages(const QList<SearchCondition>& conditions)
{
    for (const SearchCondition& c : conditions)
        if (knownTable(c.table) == QLatin1String("imageformat"))
            return true;
    return false;
}

Status buildStoredSearch(const QStringList (&titles)[4], bool images, const QList<SearchCondition>& conditions,
                         SearchStatement* statement)
{
    const QStringList& tables = searchLevelTables();
    const int levels = images ? 4 : 3;
    Builder b;
    QStringList selected, keys;
    for (int level = 0; level < levels; ++level) {
        if (titles[level].isEmpty())
            return Status(Status::InvalidInput, QStringLiteral("no result columns chosen for %1").arg(tables[level]));
        for (const QString& title : titles[level]) {
            const QString column = knownColumn(tables[level], title);
            if (column.isEmpty())
                return Status(Status::InvalidInput, QStringLiteral("the result columns name %1.%2, which the catalogue does not "
                                                                   "have").arg(tables[level], title));
            selected << tables[level] + QLatin1Char('.') + column;
        }
        keys << tables[level] + QStringLiteral(".pk");
    }
    b.add(QStringLiteral("SELECT ") + selected.join(QLatin1Char(',')));
    b.add(QStringLiteral(" FROM patient inner join generalstudy inner join generalseries"));
    b.add(images ? QStringLiteral(" inner join imageformat WHERE ") : QStringLiteral(" WHERE "));
    b.add(QStringLiteral("patient.pk=generalstudy.patient_fk and generalstudy.pk=generalseries.study_fk and "));
    if (images)
        b.add(QStringLiteral("generalseries.pk=imageformat.series_fk and "));
    b.add(QStringLiteral("("));
    for (int i = 0; i < conditions.size(); ++i) {
        const SearchCondition& c = conditions[i];
        const QString where = QStringLiteral("condition %1: ").arg(i + 1);
        const QString table = knownTable(c.table);
        if (table.isEmpty() || (table == QLatin1String("imageformat") && !images))
            return Status(Status::InvalidInput, where + QStringLiteral("unknown table \"%1\" (%2)")
                                                                .arg(c.table, tables.mid(0, levels).join(QLatin1String(", "))));
        const QString column = knownColumn(table, c.column);
        if (column.isEmpty())
            return Status(Status::InvalidInput, where + QStringLiteral("unknown column \"%1\" of %2").arg(c.column, table));
        const bool precise = c.kind == QLatin1String("Precise");
        const QString op = c.op.simplified().toLower();
        if (precise && !operators().contains(op))
            return Status(Status::InvalidInput, where + QStringLiteral("unknown operator \"%1\" (%2)")
                                                                .arg(c.op, operators().join(QLatin1String(", "))));
        addCondition(b, table + QLatin1Char('.') + column, op, c.value, precise);
        if (i == conditions.size() - 1)
            break;
        const QString connector = c.connector.simplified().toLower();
        if (connector != QLatin1String("and") && connector != QLatin1String("or"))
            return Status(Status::InvalidInput, where + QStringLiteral("unknown connector \"%1\" (and, or)").arg(c.connector));
        b.add(QLatin1Char(' ') + connector + QLatin1Char(' '));
    }
    // Grouped by patient, study and series, in key order.
    b.add(QStringLiteral(") ORDER BY ") + keys.join(QLatin1Char(',')));
    *statement = b.result();
    return Status::ok();
}

} // namespace kestrel::internal
