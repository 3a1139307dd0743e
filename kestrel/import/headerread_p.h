#pragma once

#include "dicom/filestream_p.h"
#include "dicom/headerscan_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include "platform/testexport_p.h"

#include <QFile>
#include <QString>

#include <memory>
#include <vector>

// How the importer reads headers: one parser per worker, values up to a length per pass.
namespace kestrel::internal::import {

// Header reads: the grouping pass, the study and patient rows, the record pass.
constexpr unsigned int kGroupReadLength = 1024;
constexpr unsigned int kSortReadLength = 2048;
constexpr unsigned int kRecordReadLength = 4096;

inline bool loadHeader(DcmFileFormat* parser, const QString& path, unsigned int maxReadLength)
{
    return loadDicomFile(*parser, QFile::encodeName(path), maxReadLength).good();
}

using Parsers = std::vector<std::unique_ptr<DcmFileFormat>>;

inline Parsers makeParsers(int count)
{
    Parsers parsers;
    for (int i = 0; i < count; ++i)
        parsers.push_back(std::make_unique<DcmFileFormat>());
    return parsers;
}

// One header scan per worker, keeping what the import reads of a file: the identifying values and
// the image tables' columns (HeaderScan; files it leaves are read by DCMTK).
KESTREL_TEST_EXPORT std::vector<HeaderScan> makeScans(int count);

} // namespace kestrel::internal::import
