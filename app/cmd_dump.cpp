#include "command.h"

#include "dicom/qdcmdump.h"

#include <QByteArray>
#include <QFile>

#include <iostream>
#include <vector>

namespace {

// kestrel dump [options] FILE...: the text dump of DICOM files on standard output, with
// dcmdump's options; the exit status is the dump's own.
int runDump(const QStringList& args)
{
    std::vector<QByteArray> encoded;
    encoded.reserve(static_cast<size_t>(args.size()) + 1);
    encoded.push_back(QByteArray("dcmdump"));
    for (const QString& arg : args)
        encoded.push_back(QFile::encodeName(arg));
    std::vector<char*> argv;
    for (QByteArray& arg : encoded)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    const int status = dumfile_main(static_cast<int>(encoded.size()), argv.data(), std::cout);
    std::cout.flush();
    return status;
}

} // namespace

KESTREL_COMMAND("dump", "text dump of DICOM files (dcmdump's options; 'kestrel dump --help')", runDump);
