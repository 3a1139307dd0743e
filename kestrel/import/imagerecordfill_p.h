#pragma once

#include "platform/testexport_p.h"
#include "qdcmfiles.h"

class DcmItem;

// Filling the importer's image records from a parsed dataset (no duplicate decision, no database).
namespace kestrel::internal {

class HeaderScan;

void setColumn(ImageRecord* record, const QString& table, const QString& column, const QVariant& value);
QVariant columnValue(const ImageRecord& record, const QString& table, const QString& column);

void readImageFormat(ImageFormat* record, DcmItem* item);
void readImagePix(ImagePix* record, DcmItem* item);
void readMRImageInfo(MRImageInfo* record, DcmItem* item);
// The three at once (one walk over the item); FORMAT's filePath is set beforehand.
KESTREL_TEST_EXPORT void readImageRecords(ImageFormat* format, ImagePix* pix, MRImageInfo* info, DcmItem* item);
// The same from a header read without DCMTK.
KESTREL_TEST_EXPORT void readImageRecords(ImageFormat* format, ImagePix* pix, MRImageInfo* info, const HeaderScan& scan);
// The three tables, in that order.
KESTREL_TEST_EXPORT const QStringList& imageTables();

} // namespace kestrel::internal
