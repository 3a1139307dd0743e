#pragma once

// The programs the tests run: this build's kestrel host, and dcm2niix as an independent reader.

#include <QFileInfo>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// What one run of this build's kestrel host said.
struct HostRun {
    int exitCode = -1; // -1 when it crashed or did not finish in time
    QString out, err;
    QString said() const { return out + err; }
};

// Path of this build's kestrel host.
QString hostProgram();
// Runs kestrel ARGS in WORKINGDIR (the test's own when empty) with ENV (the test's when empty).
HostRun runHost(const QStringList& args, const QString& workingDir = QString(),
                const QProcessEnvironment& env = QProcessEnvironment(), int timeoutMs = 120000);

#define KESTREL_REQUIRE_HOST()                                                \
    if (!QFileInfo::exists(hostProgram()))                                    \
    QSKIP("the kestrel host is not built")

// Why dcm2niix cannot run, empty when it can.
QString dcm2niixSkip();
// dcm2niix's uncompressed NIfTI files of FOLDER, named v*, in OUT; empty when it worked, else why not.
QString dcm2niix(const QString& folder, const QString& out);
