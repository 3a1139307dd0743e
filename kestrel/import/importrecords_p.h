#pragma once

#include "platform/testexport_p.h"

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <vector>

class DcmItem;

namespace kestrel::internal {
class HeaderScan;
}

// Row values of the catalogue tables read from a DICOM dataset (catalog/batchinsert_p.h writes
// them). Column lists come from the catalogue schema.
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

// The same from a header read without DCMTK: the values SCAN kept of the tables' attributes.
KESTREL_TEST_EXPORT QVector<QVector<QVariant>> readColumns(const QStringList& tables, const HeaderScan& scan);
// The attributes the columns of TABLES are read from, and the character set: what a scan keeps.
KESTREL_TEST_EXPORT std::vector<quint32> columnTags(const QStringList& tables);

// Index of COLUMN in TABLE's insert order, -1 when absent.
KESTREL_TEST_EXPORT int columnIndex(const QString& table, const QString& column);

// "hhmmss[.ffffff]" as "hh:mm:ss"; "" when the text is not such a time.
KESTREL_TEST_EXPORT QString timeOfDay(const QString& dicomTime);

// The fixed `Status` of new patient, study and series rows ("not uploaded").
KESTREL_TEST_EXPORT QString notUploadedStatus();

} // namespace kestrel::internal::records
