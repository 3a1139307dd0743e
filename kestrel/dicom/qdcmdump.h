#pragma once

#include "kestrel_global.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctagkey.h>
#include <dcmtk/dcmdata/dcxfer.h>
#include <dcmtk/ofstd/offile.h>

#include <cstdint>
#include <iosfwd>

// The text dump of DICOM files. It takes DCMTK's dcmdump command line (same options, same
// defaults, same messages) and prints what that tool prints, but into the stream it is given,
// and it always returns its exit code instead of ending the process. Diagnostics go through
// DCMTK's logger ("dcmtk.apps.dcmdump"), as the tool's do.

// Runs one dump command line; argv[0] is the program name. Returns the exit code: 0 when every
// file was dumped, otherwise the number of files that failed, or 1 for a command-line error.
KESTREL_EXPORT int dumfile_main(int argc, char* argv[], std::ostream& out);

// Loads and prints one file with the given read mode, transfer syntax and print flags
// (DCMTypes::PF_*). The switches: load long values into memory, stop on a damaged file (print
// nothing), convert to UTF-8 first. PIXELDIRECTORY, when not null, receives the pixel data as
// .raw files. Uses the search tags and layout switches of the command line being run.
// Returns 0 on success, non-zero on error.
KESTREL_EXPORT int dumpFile(std::ostream& out, const OFFilename& ifname, E_FileReadMode readMode,
                            E_TransferSyntax xfer, std::uint64_t printFlags, bool loadIntoMemory,
                            bool stopOnErrors, bool convertToUTF8, const char* pixelDirectory);

// "gggg,eeee" in hexadecimal, else a data dictionary name; (FFFF,FFFF) with a warning when
// neither fits.
KESTREL_EXPORT DcmTagKey parseTagKey(const char* text);

// Adds a tag for --search to the command line being run; false (with a warning) when 1024 tags
// are already held or the name is not recognised.
KESTREL_EXPORT bool addPrintTagName(const char* text);
