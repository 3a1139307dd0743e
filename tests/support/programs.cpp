#include "programs.h"

#include "kestrelpaths.h"

#include <QDir>
#include <QProcess>
#include <QStandardPaths>

QString hostProgram()
{
    return Kestrel::applicationDir() + "/kestrel";
}

HostRun runHost(const QStringList& args, const QString& workingDir, const QProcessEnvironment& env, int timeoutMs)
{
    QProcess process;
    if (!workingDir.isEmpty())
        process.setWorkingDirectory(workingDir);
    if (!env.isEmpty())
        process.setProcessEnvironment(env);
    process.start(hostProgram(), args);
    HostRun run;
    const bool finished = process.waitForFinished(timeoutMs);
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    if (finished && process.exitStatus() == QProcess::NormalExit)
        run.exitCode = process.exitCode();
    return run;
}

QString dcm2niixSkip()
{
    return QStandardPaths::findExecutable("dcm2niix").isEmpty() ? "dcm2niix is not installed (scripts/setup.sh installs it)"
                                                                : QString();
}

QString dcm2niix(const QString& folder, const QString& out)
{
    QDir().mkpath(out);
    QProcess p;
    p.setProcessChannelMode(QProcess::MergedChannels);
    // -p n: the display values of Rescale Slope and Intercept, not Philips' private scaling.
    p.start("dcm2niix", {"-b", "n", "-z", "n", "-p", "n", "-f", "v", "-o", out, folder});
    if (!p.waitForFinished(120000) || p.exitCode() != 0)
        return "dcm2niix failed on " + folder + ": " + QString::fromLocal8Bit(p.readAll());
    return {};
}
