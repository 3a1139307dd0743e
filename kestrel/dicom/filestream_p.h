#pragma once

#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QByteArray>

// Reading DICOM files without stdio. DCMTK's own file stream asks the C library for every tag,
// length and value separately (a lock, a tell and an end-of-file check each time): a header read
// spent a quarter of its time there. This stream reads the file in blocks with pread and hands
// out the bytes from memory; values left unread (longer than the read length) are loaded later
// from the file by DCMTK as before.
namespace kestrel::internal {

// DcmFileFormat::loadFile with the same meaning (automatic detection of meta header and transfer
// syntax, values longer than MAXREADLENGTH left in the file), read through the block stream.
// NAME is the file's encoded name. Exceptions from DCMTK's parser end as EC_CorruptedData.
KESTREL_TEST_EXPORT OFCondition loadDicomFile(DcmFileFormat& format, const QByteArray& name, Uint32 maxReadLength);

} // namespace kestrel::internal
