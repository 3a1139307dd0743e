#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <map>
#include <optional>

class QCommandLineParser;

// Subcommands of the kestrel host. Each app/cmd_<name>.cpp registers one with KESTREL_COMMAND;
// its function gets the arguments after the subcommand's name and returns the exit status.
namespace app {

using CommandFunction = std::function<int(const QStringList& args)>;

struct Command {
    QString summary;
    CommandFunction run;
};

std::map<QString, Command>& commands();

struct CommandRegistration {
    CommandRegistration(const char* name, const char* summary, CommandFunction run);
};

// One-line failure on stderr ("kestrel NAME: reason"); returns the exit status to use.
int fail(const QString& command, const QString& reason, int status = 1);

// Parses the arguments of command NAME. With --help it prints the help and gives 0, on an error
// the one-line failure (status 2); either way the command returns that value. No value: go on.
std::optional<int> parseArguments(QCommandLineParser& parser, const QString& name, const QStringList& args);

// Shows the library's warnings and debug lines on stderr (the global --verbose).
void setVerbose(bool on);

} // namespace app

#define KESTREL_COMMAND_CAT2(a, b) a##b
#define KESTREL_COMMAND_CAT(a, b) KESTREL_COMMAND_CAT2(a, b)
#define KESTREL_COMMAND(name, summary, function) \
    static const app::CommandRegistration KESTREL_COMMAND_CAT(kestrelCommand_, __LINE__)(name, summary, function)
