#pragma once

#include "platform/testexport_p.h"

#include <QSqlDatabase>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

class DcmItem;

// Row values of the catalogue tables read from a DICOM dataset, and the statements that write
// them. Column lists come from the catalogue schema; every value is bound.
namespace kestrel::internal::records {

// Values of TABLE's columns (insert order) read from ITEM's top level: each attribute column holds
// the attribute's whole text (multi-valued with "\"), decoded by the item's SpecificCharacterSet, or
// "" when absent; binary values (pixel data, profiles, lookup data) and sequences stay "".
// InstanceNumber is a number (null when absent); SpacingX ... PositionZ hold the components of
// PixelSpacing, ImageOrientationPatient and ImagePositionPatient by index (null when absent).
// Columns no attribute fills (keys, SeriesBase, FilePath, Status) are null for the caller to set.
KESTREL_TEST_EXPORT QVector<QVariant> readColumns(const QString& table, DcmItem* item);
// The same for several tables in one walk over the item (one vector per table, in order).
KESTREL_TEST_EXPORT QVector<QVector<QVariant>> readColumns(const QStringList& tables, DcmItem* item);

// Index of COLUMN in TABLE's insert order, -1 when absent.
KESTREL_TEST_EXPORT int columnIndex(const QString& table, const QString& column);

// "hhmmss[.ffffff]" as "hh:mm:ss"; "" when the text is not such a time.
KESTREL_TEST_EXPORT QString timeOfDay(const QString& dicomTime);

// The fixed `Status` of new patient, study and series rows ("not uploaded").
KESTREL_TEST_EXPORT QString notUploadedStatus();

// One INSERT of ROWS into TABLE on DB (split in statements of at most a few hundred rows, the
// bound-parameter limit of the drivers). False with *error set when a statement fails.
KESTREL_TEST_EXPORT bool insertRows(QSqlDatabase db, const QString& table, const QVector<const QVector<QVariant>*>& rows,
                               QString* error);

} // namespace kestrel::internal::records
