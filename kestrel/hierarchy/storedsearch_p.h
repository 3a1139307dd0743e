#pragma once

#include "platform/status_p.h"

#include <QList>
#include <QSqlDatabase>
#include <QString>
#include <QStringList>
#include <QVariantList>

// The statement of a stored advanced search (table andvancequiry): names checked against the
// schema, operators and connectors against fixed lists, values bound.
namespace kestrel::internal {

// One stored condition, in the columns of andvancequiry.
struct SearchCondition {
    QString table, column, op, value, connector, kind;
};

// A SELECT with "?" markers and the values for them, and the same statement as people read it,
// the values written in quotes where the markers are.
struct SearchStatement {
    QString sql;
    QVariantList values;
    QString text;
};

// The levels of a search result: patient, study, series, image.
const QStringList& searchLevelTables();

// The conditions of the stored search NAME in the order they were stored; NotFound when there
// are none.
Status readStoredSearch(QSqlDatabase db, const QString& name, QList<SearchCondition>* conditions);

// True when a condition is on the image level (table imageformat).
bool searchesImages(const QList<SearchCondition>& conditions);

// The statement of CONDITIONS selecting TITLES (the columns of each level, the key first; the
// image level only when IMAGES). A table, column, operator or connector outside the known lists
// gives InvalidInput naming it, and nothing is built.
Status buildStoredSearch(const QStringList (&titles)[4], bool images, const QList<SearchCondition>& conditions,
                         SearchStatement* statement);

} // namespace kestrel::internal
