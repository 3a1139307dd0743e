#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <QString>

struct VolumeHead;

// The disk cache of built volumes: the cache folder, a volume's file name in it, and the
// `registration` rows that name the files (on the default connection).
namespace kestrel::internal::volumecache {

// The folder of ../config/cache.ini's "registration/cachepath" (read relative to the working
// directory, as the application's launcher sets it; default "../cache"), a relative folder
// resolved against the application directory, cleaned. Made when missing.
KESTREL_TEST_EXPORT QString folder();

// FOLDER/KEY.data, the key's path separators replaced by "_" (no separators from the data).
KESTREL_TEST_EXPORT QString fileFor(const QString& folder, const QString& key);

// The key of the volume of the frames of group GROUP of the series SERIESKEY (its SeriesBase):
// SERIESKEY#framesGROUP. Its registration's head text carries the frames after the head.
KESTREL_TEST_EXPORT QString framesKey(const QString& seriesKey, int group);

// The series key that frames key KEY belongs to; empty when KEY is not a frames key.
KESTREL_TEST_EXPORT QString framesKeySeries(const QString& key);

// Savepath of KEY's last registration row; empty without one (or when the read fails). HEAD, when
// given, gets the row's head text, CHECKSUM its voxel checksum (empty for rows of earlier versions).
KESTREL_TEST_EXPORT QString registeredFile(const QString& key, QString* head = nullptr, QString* checksum = nullptr);

// Adds the registration row of KEY: FILE with the volume's head text HEAD and the checksum of its
// voxels.
KESTREL_TEST_EXPORT Status registerFile(const QString& key, const QString& file, const QString& head,
                                        const QString& checksum = QString());

// Removes every registration row of KEY.
KESTREL_TEST_EXPORT Status forget(const QString& key);

// The checksum a registration keeps of a cache file's voxels (CRC-32, eight hex digits), so that a
// file damaged after it was written is noticed on load.
KESTREL_TEST_EXPORT QString voxelChecksum(const char* voxels, qint64 length);

// What makes HEAD no volume a cache should serve: sizes, spacings or frame count out of range, or
// strides that do not follow from the sizes (2-byte voxels, rows, slices and frames packed one
// after the other). Empty when consistent.
KESTREL_TEST_EXPORT QString cachedHeadFault(const ::VolumeHead& head, qint64 headerBlock);

// Reads the study and series UIDs of SERIESPK's images and drops them (the volume's getUID).
void readSeriesUIDs(qint64 seriesPk);

} // namespace kestrel::internal::volumecache
