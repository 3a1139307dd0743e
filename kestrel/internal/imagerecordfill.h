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

} // namespace kestrel::internal
