#pragma once

#include "qdcmfiles.h"

class DcmItem;

// Filling the importer's image records from a parsed dataset (no duplicate decision, no database).
namespace kestrel::internal {

void setColumn(ImageRecord* record, const QString& table, const QString& column, const QVariant& value);
QVariant columnValue(const ImageRecord& record, const QString& table, const QString& column);

void readImageFormat(ImageFormat* record, DcmItem* item);
void readImagePix(ImagePix* record, DcmItem* item);
void readMRImageInfo(MRImageInfo* record, DcmItem* item);
// The three at once (one walk over the item); FORMAT's filePath is set beforehand.
void readImageRecords(ImageFormat* format, ImagePix* pix, MRImageInfo* info, DcmItem* item);

} // namespace kestrel::internal
