#pragma once

#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcxfer.h>

#include <QString>

class DcmFileFormat;
class OFCondition;

// The one place where pixel data decoders are registered and where files whose pixels are to be
// decoded are read. Images, volumes and the storage user all go through here.
namespace kestrel::internal {

// Registers the decoders of compressed pixel data with DCMTK, once per process: DCMTK's own
// (RLE, JPEG baseline/extended/lossless, JPEG-LS) and ours for JPEG 2000 and HTJ2K.
KESTREL_TEST_EXPORT void registerDecoders();

// The high-throughput JPEG 2000 transfer syntaxes, which DCMTK 3.6.7 does not know.
constexpr const char* kHtj2kLosslessUid = "1.2.840.10008.1.2.4.201";
constexpr const char* kHtj2kLosslessRpclUid = "1.2.840.10008.1.2.4.202";
constexpr const char* kHtj2kUid = "1.2.840.10008.1.2.4.203";
KESTREL_TEST_EXPORT bool isHtj2kTransferSyntax(const QString& uid);

// Reads FILE for its pixels (decoders registered, DCMTK's parser guarded). Values longer than
// MAXREADLENGTH stay in the file until they are used. An HTJ2K file is read as the JPEG 2000
// data it is, so that DCMTK's decoding paths reach our decoder.
KESTREL_TEST_EXPORT OFCondition loadPixelFile(DcmFileFormat& file, const QString& path,
                                              Uint32 maxReadLength = 4096);

// Empty when the pixels of FILE are as they were acquired; otherwise a note naming the lossy
// compression: a lossy transfer syntax (JPEG 2000 and HTJ2K only when the codestream itself was
// irreversible) or Lossy Image Compression (0028,2110) "01". Call after decoding.
KESTREL_TEST_EXPORT QString lossyCompressionNote(DcmFileFormat& file);

} // namespace kestrel::internal
