#pragma once

#include "dicom/filestream_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcfilefo.h>

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

} // namespace kestrel::internal::import
