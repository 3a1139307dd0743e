#include "dicom/qdcmdump.h"
#include "dicom/dcmvalues_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcdict.h>
#include <dcmtk/dcmdata/dcdicent.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcistrmz.h>
#include <dcmtk/dcmdata/dcobject.h>
#include <dcmtk/dcmdata/dcstack.h>
#include <dcmtk/dcmdata/dctypes.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmdata/dcvr.h>
#include <dcmtk/oflog/oflog.h>
#include <dcmtk/ofstd/ofchrenc.h>
#include <dcmtk/ofstd/ofcmdln.h>
#include <dcmtk/ofstd/ofconapp.h>
#include <dcmtk/ofstd/ofconsol.h>
#include <dcmtk/ofstd/oflist.h>
#include <dcmtk/ofstd/ofstd.h>

#ifdef WITH_ZLIB
#include <zlib.h>
#endif

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

const char* const kProgram = "dcmdump";
const char* const kDescription = "Dump DICOM file and data set";
const char* const kRcsid = "$dcmtk: dcmdump v" OFFIS_DCMTK_VERSION " " OFFIS_DCMTK_RELEASEDATE " $";
const int kLongCol = 21;
const int kShortCol = 3;
const int kParamCol = 28;
const std::size_t kMaxPrintTags = 1024;

OFLogger dumpLogger()
{
    return OFLog::getLogger("dcmtk.apps.dcmdump");
}

// The choices of the command line being run that dumpFile() reads besides its arguments.
struct DumpState {
    std::vector<DcmTagKey> printTags;
    bool printAllInstances = true;
    bool prependSequenceHierarchy = false;
    bool printFilename = false;
    bool printFileSearch = false;
    Uint32 maxReadLength = 4096;
    DcmTagKey stopBeforeElement = DCM_UndefinedTagKey;
    int fileSearchCounter = 0;
};

thread_local DumpState state;

// DCMTK's parser switches are process-wide; a dump changes them only for its own run.
class ParserSwitchGuard
{
public:
    ParserSwitchGuard()
        : autoDetectXfer(dcmAutoDetectDatasetXfer.get()),
          ignoreMetaLength(dcmIgnoreFileMetaInformationGroupLength.get()),
          acceptOddLength(dcmAcceptOddAttributeLength.get()),
          preferDictionaryVr(dcmPreferVRFromDataDictionary.get()),
          acceptImplicit(dcmAcceptUnexpectedImplicitEncoding.get()),
          cp246(dcmEnableCP246Support.get()),
          convertUn(dcmEnableUnknownVRConversion.get()),
          maxLengthAsSq(dcmReadImplPrivAttribMaxLengthAsSQ.get()),
          replaceDelimiters(dcmReplaceWrongDelimitationItem.get()),
          obowToSq(dcmConvertUndefinedLengthOBOWtoSQ.get()),
          voiToSq(dcmConvertVOILUTSequenceOWtoSQ.get()),
          explicitPixelData(dcmUseExplLengthPixDataForEncTS.get()),
          ignoreParseErrors(dcmIgnoreParsingErrors.get()),
          stopAfter(dcmStopParsingAfterElement.get()),
          correction(dcmEnableAutomaticInputDataCorrection.get()),
          zlibHeader(dcmZlibExpectRFC1950Encoding.get())
    {
    }
    ~ParserSwitchGuard()
    {
        dcmAutoDetectDatasetXfer.set(autoDetectXfer);
        dcmIgnoreFileMetaInformationGroupLength.set(ignoreMetaLength);
        dcmAcceptOddAttributeLength.set(acceptOddLength);
        dcmPreferVRFromDataDictionary.set(preferDictionaryVr);
        dcmAcceptUnexpectedImplicitEncoding.set(acceptImplicit);
        dcmEnableCP246Support.set(cp246);
        dcmEnableUnknownVRConversion.set(convertUn);
        dcmReadImplPrivAttribMaxLengthAsSQ.set(maxLengthAsSq);
        dcmReplaceWrongDelimitationItem.set(replaceDelimiters);
        dcmConvertUndefinedLengthOBOWtoSQ.set(obowToSq);
        dcmConvertVOILUTSequenceOWtoSQ.set(voiToSq);
        dcmUseExplLengthPixDataForEncTS.set(explicitPixelData);
        dcmIgnoreParsingErrors.set(ignoreParseErrors);
        dcmStopParsingAfterElement.set(stopAfter);
        dcmEnableAutomaticInputDataCorrection.set(correction);
        dcmZlibExpectRFC1950Encoding.set(zlibHeader);
    }
    ParserSwitchGuard(const ParserSwitchGuard&) = delete;
    ParserSwitchGuard& operator=(const ParserSwitchGuard&) = delete;

private:
    OFBool autoDetectXfer, ignoreMetaLength, acceptOddLength, preferDictionaryVr, acceptImplicit, cp246,
        convertUn, maxLengthAsSq, replaceDelimiters, obowToSq, voiToSq, explicitPixelData, ignoreParseErrors;
    DcmTagKey stopAfter;
    OFBool correction, zlibHeader;
};

// Log options change DCMTK's process-wide logging; the previous level comes back afterwards.
class LogLevelGuard
{
public:
    void configured() { restore = true; }
    ~LogLevelGuard()
    {
        if (restore)
            OFLog::configure(previous);
    }

private:
    OFLogger::LogLevel previous = OFLog::getLogger("dcmtk").getChainedLogLevel();
    bool restore = false;
};

// Prints DCMTK's header of the program (identifier, name, description, optionally the host
// information) into OUT.
void printProgramHeader(OFConsoleApplication& app, std::ostream& out, bool hostInfo)
{
    STD_NAMESPACE ostream* previous = ofConsole.setCout(&out);
    app.printHeader(hostInfo ? OFTrue : OFFalse, OFFalse);
    ofConsole.setCout(previous);
}

// A command-line error: the header and the message on the error stream, exit code 1.
int commandLineError(OFConsoleApplication& app, const OFString& message)
{
    app.printHeader(OFFalse, OFTrue);
    std::cerr << "error: " << message << std::endl;
    return 1;
}

void printUsage(OFConsoleApplication& app, OFCommandLine& cmd, std::ostream& out)
{
    printProgramHeader(app, out, false);
    OFString syntax, params, options;
    cmd.getSyntaxString(syntax);
    cmd.getParamString(params);
    cmd.getOptionString(options);
    out << "usage: " << kProgram << syntax;
    out << "\n";
    if (!params.empty())
        out << "\n" << params;
    if (!options.empty())
        out << "\n" << options;
    out << "\n";
    out.flush();
}

void printVersion(OFConsoleApplication& app, std::ostream& out)
{
    printProgramHeader(app, out, true);
    out << "\nExternal libraries used:\n";
#ifdef WITH_ZLIB
    out << "- ZLIB, Version " << zlibVersion() << "\n";
#endif
    out << "- " << OFCharacterEncoding::getLibraryVersionString() << "\n";
    out.flush();
}

void defineOptions(OFCommandLine& cmd)
{
    cmd.setParamColumn(kParamCol);
    cmd.addParam("dcmfile-in", "DICOM input file or directory to be dumped", OFCmdParam::PM_MultiMandatory);

    cmd.setOptionColumns(kLongCol, kShortCol);
    cmd.addGroup("general options:", kLongCol, kShortCol + 2);
    cmd.addOption("--help", "-h", "print this help text and exit", OFCommandLine::AF_Exclusive);
    cmd.addOption("--version", "print version information and exit", OFCommandLine::AF_Exclusive);
    OFLog::addOptions(cmd);

    cmd.addGroup("input options:");
    cmd.addSubGroup("input file format:");
    cmd.addOption("--read-file", "+f", "read file format or data set (default)");
    cmd.addOption("--read-file-only", "+fo", "read file format only");
    cmd.addOption("--read-dataset", "-f", "read data set without file meta information");
    cmd.addSubGroup("input transfer syntax:");
    cmd.addOption("--read-xfer-auto", "-t=", "use TS recognition (default)");
    cmd.addOption("--read-xfer-detect", "-td", "ignore TS specified in the file meta header");
    cmd.addOption("--read-xfer-little", "-te", "read with explicit VR little endian TS");
    cmd.addOption("--read-xfer-big", "-tb", "read with explicit VR big endian TS");
    cmd.addOption("--read-xfer-implicit", "-ti", "read with implicit VR little endian TS");
    cmd.addSubGroup("input files:");
    cmd.addOption("--scan-directories", "+sd", "scan directories for input files (dcmfile-in)");
    cmd.addOption("--scan-pattern", "+sp", 1, "[p]attern: string (only with --scan-directories)",
                  "pattern for filename matching (wildcards)");
    cmd.addOption("--no-recurse", "-r", "do not recurse within directories (default)");
    cmd.addOption("--recurse", "+r", "recurse within specified directories");
    cmd.addSubGroup("long tag values:");
    cmd.addOption("--load-all", "+M", "load very long tag values (default)");
    cmd.addOption("--load-short", "-M", "do not load very long values (e.g. pixel data)");
    cmd.addOption("--max-read-length", "+R", 1, "[k]bytes: integer (4..4194302, default: 4)",
                  "set threshold for long values to k kbytes");
    cmd.addSubGroup("parsing of file meta information:");
    cmd.addOption("--use-meta-length", "+ml", "use file meta information group length (default)");
    cmd.addOption("--ignore-meta-length", "-ml", "ignore file meta information group length");
    cmd.addSubGroup("parsing of odd-length attributes:");
    cmd.addOption("--accept-odd-length", "+ao", "accept odd length attributes (default)");
    cmd.addOption("--assume-even-length", "+ae", "assume real length is one byte larger");
    cmd.addSubGroup("handling of explicit VR:");
    cmd.addOption("--use-explicit-vr", "+ev", "use explicit VR from dataset (default)");
    cmd.addOption("--ignore-explicit-vr", "-ev", "ignore explicit VR (prefer data dictionary)");
    cmd.addSubGroup("handling of non-standard VR:");
    cmd.addOption("--treat-as-unknown", "+vr", "treat non-standard VR as unknown (default)");
    cmd.addOption("--assume-implicit", "-vr", "try to read with implicit VR little endian TS");
    cmd.addSubGroup("handling of undefined length UN elements:");
    cmd.addOption("--enable-cp246", "+ui", "read undefined len UN as implicit VR (default)");
    cmd.addOption("--disable-cp246", "-ui", "read undefined len UN as explicit VR");
    cmd.addSubGroup("handling of defined length UN elements:");
    cmd.addOption("--retain-un", "-uc", "retain elements as UN (default)");
    cmd.addOption("--convert-un", "+uc", "convert to real VR if known");
    cmd.addSubGroup("handling of private max-length elements (implicit VR):");
    cmd.addOption("--maxlength-dict", "-sq", "read as defined in dictionary (default)");
    cmd.addOption("--maxlength-seq", "+sq", "read as sequence with undefined length");
    cmd.addSubGroup("handling of wrong delimitation items:");
    cmd.addOption("--use-delim-items", "-rd", "use delimitation items from dataset (default)");
    cmd.addOption("--replace-wrong-delim", "+rd", "replace wrong sequence/item delimitation items");
    cmd.addSubGroup("handling of illegal undefined length OB/OW elements:");
    cmd.addOption("--illegal-obow-rej", "-oi", "reject dataset with illegal element (default)");
    cmd.addOption("--illegal-obow-conv", "+oi", "convert undefined length OB/OW element to SQ");
    cmd.addSubGroup("handling of VOI LUT Sequence with OW VR and explicit length:");
    cmd.addOption("--illegal-voi-rej", "-vi", "reject dataset with illegal VOI LUT (default)");
    cmd.addOption("--illegal-voi-conv", "+vi", "convert illegal VOI LUT to SQ");
    cmd.addSubGroup("handling of explicit length pixel data for encaps. transfer syntaxes:");
    cmd.addOption("--abort-expl-pixdata", "-pe", "abort on explicit length pixel data (default)");
    cmd.addOption("--use-expl-pixdata", "+pe", "use explicit length pixel data");
    cmd.addSubGroup("general handling of parser errors: ");
    cmd.addOption("--ignore-parse-errors", "+Ep", "try to recover from parse errors");
    cmd.addOption("--handle-parse-errors", "-Ep", "handle parse errors and stop parsing (default)");
    cmd.addSubGroup("other parsing options:");
    cmd.addOption("--stop-after-elem", "+st", 1, "[t]ag: \"gggg,eeee\" or dictionary name",
                  "stop parsing after element specified by t");
    cmd.addOption("--stop-before-elem", "+sb", 1, "[t]ag: \"gggg,eeee\" or dictionary name",
                  "stop parsing before element specified by t");
    cmd.addSubGroup("automatic data correction:");
    cmd.addOption("--enable-correction", "+dc", "enable automatic data correction (default)");
    cmd.addOption("--disable-correction", "-dc", "disable automatic data correction");
    cmd.addSubGroup("bitstream format of deflated input:");
    cmd.addOption("--bitstream-deflated", "+bd", "expect deflated bitstream (default)");
    cmd.addOption("--bitstream-zlib", "+bz", "expect deflated zlib bitstream");

    cmd.addGroup("processing options:");
    cmd.addSubGroup("specific character set:");
    cmd.addOption("--convert-to-utf8", "+U8",
                  "convert all element values that are affected\nby Specific Character Set (0008,0005) to UTF-8");

    cmd.addGroup("output options:");
    cmd.addSubGroup("printing:");
    cmd.addOption("--print-all", "+L", "print long tag values completely");
    cmd.addOption("--print-short", "-L", "print long tag values shortened (default)");
    cmd.addOption("--print-tree", "+T", "print hierarchical structure as a simple tree");
    cmd.addOption("--print-indented", "-T", "print hierarchical structure indented (default)");
    cmd.addOption("--print-filename", "+F", "print header with filename for each input file");
    cmd.addOption("--print-file-search", "+Fs",
                  "print header with filename only for those input\nfiles that contain one of the searched tags");
    cmd.addSubGroup("mapping:");
    cmd.addOption("--map-uid-names", "+Un", "map well-known UID numbers to names (default)");
    cmd.addOption("--no-uid-names", "-Un", "do not map well-known UID numbers to names");
    cmd.addSubGroup("quoting:");
    cmd.addOption("--quote-nonascii", "+Qn", "quote non-ASCII and control chars as XML markup");
    cmd.addOption("--quote-as-octal", "+Qo", "quote non-ASCII and control ch. as octal numbers");
    cmd.addOption("--print-nonascii", "-Qn", "print non-ASCII and control chars (default)");
    cmd.addSubGroup("color:");
    cmd.addOption("--print-color", "+C", "use ANSI escape codes for colored output");
    cmd.addOption("--no-color", "-C", "do not use any ANSI escape codes (default)");
    cmd.addSubGroup("error handling:");
    cmd.addOption("--stop-on-error", "-E", "do not print if file is damaged (default)");
    cmd.addOption("--ignore-errors", "+E", "attempt to print even if file is damaged");
    cmd.addSubGroup("searching:");
    cmd.addOption("--search", "+P", 1, "[t]ag: \"gggg,eeee\" or dictionary name",
                  "print the textual dump of tag t\nthis option can be specified multiple times\n"
                  "(default: the complete file is printed)");
    cmd.addOption("--search-all", "+s", "print all instances of searched tags (default)");
    cmd.addOption("--search-first", "-s", "only print first instance of searched tags");
    cmd.addOption("--prepend", "+p",
                  "prepend sequence hierarchy to printed tag,\ndenoted by: (gggg,eeee).(gggg,eeee).*\n"
                  "(only when used with --search)");
    cmd.addOption("--no-prepend", "-p", "do not prepend hierarchy to tag (default)");
    cmd.addSubGroup("writing:");
    cmd.addOption("--write-pixel", "+W", 1, "[d]irectory: string",
                  "write pixel data to a .raw file stored in d\n(little endian, filename created automatically)");
}

// Everything the command line selects for the files.
struct RunOptions {
    E_FileReadMode readMode = ERM_autoDetect;
    E_TransferSyntax xfer = EXS_Unknown;
    size_t printFlags = DCMTypes::PF_shortenLongTagValues;
    bool loadIntoMemory = true;
    bool printFilename = false;
    bool stopOnErrors = true;
    bool convertToUTF8 = false;
    bool scanDir = false;
    bool recurse = false;
    const char* scanPattern = "";
    const char* pixelDirectory = nullptr;
};

// Checks the log options the way DCMTK's logger set-up does, so that it never has to end the
// process over a bad value. Returns an empty text when they are fine.
OFString checkLogOptions(OFCommandLine& cmd)
{
    const char* value = nullptr;
    cmd.beginOptionBlock();
    if (cmd.findOption("--log-level")) {
        if (cmd.getValue(value) != OFCommandLine::VS_Normal)
            return "Invalid log level for --log-level option";
        static const char* const levels[] = {"fatal", "error", "warn", "info", "debug", "trace"};
        bool known = false;
        for (const char* level : levels)
            known = known || std::strcmp(level, value) == 0;
        if (!known)
            return "Invalid log level for --log-level option";
    }
    cmd.endOptionBlock();
    if (cmd.findOption("--log-config")) {
        if (cmd.getValue(value) != OFCommandLine::VS_Normal || !OFStandard::fileExists(value))
            return "Specified --log-config file does not exist";
    }
    return OFString();
}

// Reads every option into OPTIONS (and the shared state). Returns -1 when all is well, else
// the exit code to end with.
int readOptions(OFConsoleApplication& app, OFCommandLine& cmd, RunOptions& o)
{
    OFString error;

    cmd.beginOptionBlock();
    if (cmd.findOption("--read-file"))
        o.readMode = ERM_autoDetect;
    if (cmd.findOption("--read-file-only"))
        o.readMode = ERM_fileOnly;
    if (cmd.findOption("--read-dataset"))
        o.readMode = ERM_dataset;
    cmd.endOptionBlock();

    cmd.beginOptionBlock();
    if (cmd.findOption("--read-xfer-auto"))
        o.xfer = EXS_Unknown;
    if (cmd.findOption("--read-xfer-detect"))
        dcmAutoDetectDatasetXfer.set(OFTrue);
    const struct {
        const char* option;
        E_TransferSyntax xfer;
    } forced[] = {{"--read-xfer-little", EXS_LittleEndianExplicit},
                  {"--read-xfer-big", EXS_BigEndianExplicit},
                  {"--read-xfer-implicit", EXS_LittleEndianImplicit}};
    for (const auto& f : forced) {
        if (cmd.findOption(f.option)) {
            if (o.readMode != ERM_dataset)
                return commandLineError(app, OFString(f.option) + " only allowed with --read-dataset");
            o.xfer = f.xfer;
        }
    }
    cmd.endOptionBlock();

    if (cmd.findOption("--scan-directories"))
        o.scanDir = true;
    if (cmd.findOption("--scan-pattern")) {
        if (!o.scanDir)
            return commandLineError(app, "--scan-pattern only allowed with --scan-directories");
        cmd.getValue(o.scanPattern);
    }
    cmd.beginOptionBlock();
    if (cmd.findOption("--no-recurse"))
        o.recurse = false;
    if (cmd.findOption("--recurse")) {
        if (!o.scanDir)
            return commandLineError(app, "--recurse only allowed with --scan-directories");
        o.recurse = true;
    }
    cmd.endOptionBlock();

    cmd.beginOptionBlock();
    if (cmd.findOption("--load-all"))
        o.loadIntoMemory = true;
    if (cmd.findOption("--load-short"))
        o.loadIntoMemory = false;
    cmd.endOptionBlock();
    if (cmd.findOption("--max-read-length")) {
        OFCmdUnsignedInt kbytes = 0;
        const OFCommandLine::E_ValueStatus status = cmd.getValueAndCheckMinMax(kbytes, 4, 4194302);
        if (status != OFCommandLine::VS_Normal) {
            cmd.getStatusString(status, error);
            return commandLineError(app, error);
        }
        state.maxReadLength = OFstatic_cast(Uint32, kbytes) * 1024;
    }

    const struct {
        const char* on;
        const char* off;
        OFGlobal<OFBool>* global;
    } switches[] = {
        {"--ignore-meta-length", "--use-meta-length", &dcmIgnoreFileMetaInformationGroupLength},
        {"--accept-odd-length", "--assume-even-length", &dcmAcceptOddAttributeLength},
        {"--ignore-explicit-vr", "--use-explicit-vr", &dcmPreferVRFromDataDictionary},
        {"--assume-implicit", "--treat-as-unknown", &dcmAcceptUnexpectedImplicitEncoding},
        {"--enable-cp246", "--disable-cp246", &dcmEnableCP246Support},
        {"--convert-un", "--retain-un", &dcmEnableUnknownVRConversion},
        {"--maxlength-seq", "--maxlength-dict", &dcmReadImplPrivAttribMaxLengthAsSQ},
        {"--replace-wrong-delim", "--use-delim-items", &dcmReplaceWrongDelimitationItem},
        {"--illegal-obow-conv", "--illegal-obow-rej", &dcmConvertUndefinedLengthOBOWtoSQ},
        {"--illegal-voi-conv", "--illegal-voi-rej", &dcmConvertVOILUTSequenceOWtoSQ},
        {"--use-expl-pixdata", "--abort-expl-pixdata", &dcmUseExplLengthPixDataForEncTS},
        {"--ignore-parse-errors", "--handle-parse-errors", &dcmIgnoreParsingErrors},
    };
    for (const auto& s : switches) {
        cmd.beginOptionBlock();
        if (cmd.findOption(s.on))
            s.global->set(OFTrue);
        if (cmd.findOption(s.off))
            s.global->set(OFFalse);
        cmd.endOptionBlock();
    }

    if (cmd.findOption("--stop-after-elem")) {
        const char* name = nullptr;
        cmd.getValue(name);
        const DcmTagKey key = parseTagKey(name);
        if (key.getGroup() == 0xffff && key.getElement() == 0xffff)
            return commandLineError(app, "no valid key given for option --stop-after-elem");
        dcmStopParsingAfterElement.set(key);
    }
    if (cmd.findOption("--stop-before-elem")) {
        const char* name = nullptr;
        cmd.getValue(name);
        const DcmTagKey key = parseTagKey(name);
        if (key.getGroup() == 0xffff && key.getElement() == 0xffff)
            return commandLineError(app, "no valid key given for option --stop-before-elem");
        state.stopBeforeElement = key;
    }

    cmd.beginOptionBlock();
    if (cmd.findOption("--enable-correction"))
        dcmEnableAutomaticInputDataCorrection.set(OFTrue);
    if (cmd.findOption("--disable-correction"))
        dcmEnableAutomaticInputDataCorrection.set(OFFalse);
    cmd.endOptionBlock();
    cmd.beginOptionBlock();
    if (cmd.findOption("--bitstream-deflated"))
        dcmZlibExpectRFC1950Encoding.set(OFFalse);
    if (cmd.findOption("--bitstream-zlib"))
        dcmZlibExpectRFC1950Encoding.set(OFTrue);
    cmd.endOptionBlock();

    if (cmd.findOption("--convert-to-utf8"))
        o.convertToUTF8 = true;

    cmd.beginOptionBlock();
    if (cmd.findOption("--print-all"))
        o.printFlags &= ~DCMTypes::PF_shortenLongTagValues;
    if (cmd.findOption("--print-short"))
        o.printFlags |= DCMTypes::PF_shortenLongTagValues;
    cmd.endOptionBlock();
    cmd.beginOptionBlock();
    if (cmd.findOption("--print-tree"))
        o.printFlags |= DCMTypes::PF_showTreeStructure;
    if (cmd.findOption("--print-indented"))
        o.printFlags &= ~DCMTypes::PF_showTreeStructure;
    cmd.endOptionBlock();
    cmd.beginOptionBlock();
    if (cmd.findOption("--print-filename"))
        o.printFilename = true;
    if (cmd.findOption("--print-file-search")) {
        o.printFilename = true;
        state.printFileSearch = true;
    }
    cmd.endOptionBlock();
    cmd.beginOptionBlock();
    if (cmd.findOption("--map-uid-names"))
        o.printFlags &= ~DCMTypes::PF_doNotMapUIDsToNames;
    if (cmd.findOption("--no-uid-names"))
        o.printFlags |= DCMTypes::PF_doNotMapUIDsToNames;
    cmd.endOptionBlock();
    cmd.beginOptionBlock();
    if (cmd.findOption("--quote-nonascii"))
        o.printFlags |= DCMTypes::PF_convertToMarkup;
    if (cmd.findOption("--quote-as-octal"))
        o.printFlags |= DCMTypes::PF_convertToOctalNumbers;
    if (cmd.findOption("--print-nonascii"))
        o.printFlags &= ~(DCMTypes::PF_convertToMarkup | DCMTypes::PF_convertToOctalNumbers);
    cmd.endOptionBlock();
    cmd.beginOptionBlock();
    if (cmd.findOption("--print-color"))
        o.printFlags |= DCMTypes::PF_useANSIEscapeCodes;
    if (cmd.findOption("--no-color"))
        o.printFlags &= ~DCMTypes::PF_useANSIEscapeCodes;
    cmd.endOptionBlock();
    cmd.beginOptionBlock();
    if (cmd.findOption("--stop-on-error"))
        o.stopOnErrors = true;
    if (cmd.findOption("--ignore-errors"))
        o.stopOnErrors = false;
    cmd.endOptionBlock();

    if (cmd.findOption("--search", 0, OFCommandLine::FOM_FirstFromLeft)) {
        do {
            const char* name = nullptr;
            cmd.getValue(name);
            if (!addPrintTagName(name))
                return 1;
        } while (cmd.findOption("--search", 0, OFCommandLine::FOM_NextFromLeft));
    }
    const bool searching = !state.printTags.empty();
    cmd.beginOptionBlock();
    if (cmd.findOption("--search-all")) {
        if (!searching)
            return commandLineError(app, "--search-all only allowed with --search");
        state.printAllInstances = true;
    }
    if (cmd.findOption("--search-first")) {
        if (!searching)
            return commandLineError(app, "--search-first only allowed with --search");
        state.printAllInstances = false;
    }
    cmd.endOptionBlock();
    cmd.beginOptionBlock();
    if (cmd.findOption("--prepend")) {
        if (!searching)
            return commandLineError(app, "--prepend only allowed with --search");
        state.prependSequenceHierarchy = true;
    }
    if (cmd.findOption("--no-prepend")) {
        if (!searching)
            return commandLineError(app, "--no-prepend only allowed with --search");
        state.prependSequenceHierarchy = false;
    }
    cmd.endOptionBlock();
    if (state.printFileSearch && !searching)
        return commandLineError(app, "--print-file-search only allowed with --search");

    if (cmd.findOption("--write-pixel"))
        cmd.getValue(o.pixelDirectory);
    return -1;
}

// Prints one search hit: the path of sequences above it when asked, then the element itself.
void printResult(std::ostream& out, DcmStack& stack, size_t printFlags, const char* pixelFileName,
                 size_t* pixelCounter)
{
    const unsigned long depth = stack.card();
    if (depth == 0)
        return;
    if (state.prependSequenceHierarchy) {
        for (unsigned long i = depth - 1; i >= 1; --i) {
            const DcmTagKey key = stack.elem(i)->getTag();
            // Items carry no information of their own in the path.
            if (key != DCM_Item) {
                char text[32];
                std::snprintf(text, sizeof text, "(%04x,%04x).", key.getGroup(), key.getElement());
                if (printFlags & DCMTypes::PF_useANSIEscapeCodes)
                    out << DCMDATA_ANSI_ESCAPE_CODE_TAG;
                out << text;
            }
        }
    }
    stack.top()->print(out, printFlags, 1, pixelFileName, pixelCounter);
}

} // namespace

DcmTagKey parseTagKey(const char* text)
{
    unsigned int group = 0xffff, element = 0xffff;
    if (text && std::sscanf(text, "%x,%x", &group, &element) == 2)
        return DcmTagKey(OFstatic_cast(Uint16, group), OFstatic_cast(Uint16, element));
    DcmTagKey key(0xffff, 0xffff);
    const DcmDataDictionary& dictionary = dcmDataDict.rdlock();
    const DcmDictEntry* entry = text ? dictionary.findEntry(text) : nullptr;
    if (entry)
        key = entry->getKey();
    dcmDataDict.rdunlock();
    if (!entry)
        OFLOG_WARN(dumpLogger(), "unrecognized tag name: '" << (text ? text : "") << "'");
    return key;
}

bool addPrintTagName(const char* text)
{
    if (state.printTags.size() >= kMaxPrintTags) {
        OFLOG_WARN(dumpLogger(), "too many print tag options (max: " << kMaxPrintTags << ")");
        return false;
    }
    const DcmTagKey key = parseTagKey(text);
    if (key.getGroup() == 0xffff && key.getElement() == 0xffff)
        return false;
    state.printTags.push_back(key);
    return true;
}

int dumpFile(std::ostream& out, const OFFilename& ifname, E_FileReadMode readMode, E_TransferSyntax xfer,
             std::uint64_t printFlags64, bool loadIntoMemory, bool stopOnErrors, bool convertToUTF8,
             const char* pixelDirectory)
{
    const size_t printFlags = OFstatic_cast(size_t, printFlags64);
    if (ifname.isEmpty()) {
        OFLOG_ERROR(dumpLogger(), kProgram << ": invalid filename: <empty string>");
        return 1;
    }
    int result = 0;
    DcmFileFormat dfile;
    DcmObject* dset = &dfile;
    if (readMode == ERM_dataset)
        dset = dfile.getDataset();

    // Long values are left on disk while parsing and read afterwards when the whole file is wanted.
    const Uint32 readLength = loadIntoMemory ? DCM_MaxReadLength : state.maxReadLength;
    OFCondition cond;
    cond = kestrel::internal::guardedRead([&] {
        return state.stopBeforeElement == DCM_UndefinedTagKey
                       ? dfile.loadFile(ifname, xfer, EGL_noChange, readLength, readMode)
                       : dfile.loadFileUntilTag(ifname, xfer, EGL_noChange, readLength, readMode, state.stopBeforeElement);
    });
    if (cond.bad()) {
        OFLOG_ERROR(dumpLogger(), kProgram << ": " << cond.text() << ": reading file: " << ifname);
        result = 1;
        if (stopOnErrors)
            return result;
    }
    if (loadIntoMemory)
        dfile.loadAllDataIntoMemory();

    if (convertToUTF8) {
        OFLOG_INFO(dumpLogger(),
                   "converting all element values that are affected by SpecificCharacterSet (0008,0005) to UTF-8");
        cond = dfile.convertToUTF8();
        if (cond.bad()) {
            OFLOG_FATAL(dumpLogger(), cond.text() << ": converting file to UTF-8: " << ifname);
            return 1;
        }
    }

    size_t pixelCounter = 0;
    const char* pixelFileName = nullptr;
    OFFilename pixelFilePath;
    if (pixelDirectory) {
        OFFilename baseName;
        OFStandard::getFilenameFromPath(baseName, ifname);
        OFStandard::combineDirAndFilename(pixelFilePath, OFFilename(pixelDirectory), baseName, OFTrue);
        pixelFileName = pixelFilePath.getCharPointer();
    }

    if (state.printTags.empty()) {
        dset->print(out, printFlags, 0, pixelFileName, &pixelCounter);
        return result;
    }

    bool headerDone = false;
    for (const DcmTagKey& key : state.printTags) {
        DcmStack stack;
        if (dset->search(key, stack, ESM_fromHere, OFTrue) != EC_Normal)
            continue;
        if (!headerDone && (state.printFileSearch || !state.printFilename)) {
            // The hits of each file that has any are set apart by an empty line; with
            // --print-file-search they get a header numbered among those files only.
            if (++state.fileSearchCounter > 1)
                out << "\n";
            if (state.printFileSearch)
                out << "# " << kProgram << " (" << state.fileSearchCounter << "): " << ifname << "\n";
        }
        headerDone = true;
        printResult(out, stack, printFlags, pixelFileName, &pixelCounter);
        if (state.printAllInstances) {
            while (dset->search(key, stack, ESM_afterStackTop, OFTrue) == EC_Normal)
                printResult(out, stack, printFlags, pixelFileName, &pixelCounter);
        }
    }
    return result;
}

int dumfile_main(int argc, char* argv[], std::ostream& out)
{
    state = DumpState();
    ParserSwitchGuard switchGuard;
    LogLevelGuard logGuard;

    OFConsoleApplication app(kProgram, kDescription, kRcsid);
    OFCommandLine cmd;
    defineOptions(cmd);

    if (argc < 1 || !argv)
        return 1;
    const OFCommandLine::E_ParseStatus status = cmd.parseLine(argc, argv);
    if (status == OFCommandLine::PS_NoArguments) {
        printUsage(app, cmd, out);
        return 0;
    }
    if (status == OFCommandLine::PS_ExclusiveOption) {
        if (cmd.findOption("--version")) {
            printVersion(app, out);
            return 0;
        }
        printUsage(app, cmd, out);
        return 0;
    }
    if (status != OFCommandLine::PS_Normal) {
        OFString text;
        cmd.getStatusString(status, text);
        return commandLineError(app, text);
    }

    // The logger set-up also answers --arguments.
    const OFString logError = checkLogOptions(cmd);
    if (!logError.empty())
        return commandLineError(app, logError);
    OFLog::configureFromCommandLine(cmd, app);
    logGuard.configured();

    RunOptions options;
    const int optionResult = readOptions(app, cmd, options);
    if (optionResult >= 0)
        return optionResult;
    state.printFilename = options.printFilename;

    OFLOG_DEBUG(dumpLogger(), kRcsid << OFendl);

    if (!dcmDataDict.isDictionaryLoaded()) {
        OFLOG_WARN(dumpLogger(), "no data dictionary loaded, check environment variable: "
                                     << DCM_DICT_ENVIRONMENT_VARIABLE);
    }

    if (options.pixelDirectory) {
        if (!OFStandard::dirExists(options.pixelDirectory)) {
            OFLOG_WARN(dumpLogger(), "directory specified for --write-pixel does not exist, ignoring this option");
            options.pixelDirectory = nullptr;
        } else if (!OFStandard::isWriteable(options.pixelDirectory)) {
            OFLOG_WARN(dumpLogger(), "directory specified for --write-pixel is not writeable, ignoring this option");
            options.pixelDirectory = nullptr;
        }
    }

    OFList<OFFilename> inputFiles;
    const int paramCount = cmd.getParamCount();
    for (int i = 1; i <= paramCount; ++i) {
        OFFilename param;
        cmd.getParam(i, param);
        if (OFStandard::dirExists(param)) {
            if (options.scanDir)
                OFStandard::searchDirectoryRecursively(param, inputFiles, OFFilename(options.scanPattern),
                                                       OFFilename(), options.recurse ? OFTrue : OFFalse);
            else
                OFLOG_WARN(dumpLogger(), "ignoring directory because option --scan-directories is not set: " << param);
        } else {
            inputFiles.push_back(param);
        }
    }
    if (inputFiles.empty()) {
        OFLOG_FATAL(dumpLogger(), "no input files to be dumped");
        return 1;
    }

    int errorCount = 0;
    const size_t fileCount = inputFiles.size();
    size_t fileNumber = 0;
    for (OFListIterator(OFFilename) it = inputFiles.begin(); it != inputFiles.end(); ++it) {
        ++fileNumber;
        if (options.printFilename && !state.printFileSearch) {
            if (fileNumber > 1)
                out << "\n";
            out << "# " << kProgram << " (" << fileNumber << "/" << fileCount << "): " << *it << "\n";
        }
        errorCount += dumpFile(out, *it, options.readMode, options.xfer, options.printFlags,
                               options.loadIntoMemory, options.stopOnErrors, options.convertToUTF8,
                               options.pixelDirectory);
    }
    out.flush();
    return errorCount;
}
