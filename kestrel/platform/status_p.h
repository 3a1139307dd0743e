#pragma once

#include <QString>

#include <utility>

namespace kestrel::internal {

// The one way internals report how something went: a code and a text that names the cause.
// Public operations turn it into their fixed results (bool, int codes), lastError() and
// errorInfo signals, once, at the boundary.
class Status
{
public:
    enum Code {
        Ok = 0,
        Failed,       // the operation could not be done; text says why
        NotFound,     // what was asked for does not exist
        Busy,         // another process holds the catalogue; worth a retry
        Conflict,     // a unique key was taken by another writer meanwhile
        Unavailable,  // the server or the file went away
        InvalidInput, // the caller's or the file's values cannot be used
    };

    Status() = default;
    Status(Code code, QString text) : m_code(code), m_text(std::move(text)) {}

    static Status ok() { return Status(); }
    static Status failed(const QString& text) { return Status(Failed, text); }

    bool isOk() const { return m_code == Ok; }
    explicit operator bool() const { return isOk(); }
    Code code() const { return m_code; }
    const QString& text() const { return m_text; }

    // This status with CONTEXT in front of its text ("importing x: " + text).
    Status context(const QString& prefix) const
    {
        return isOk() ? *this : Status(m_code, prefix + m_text);
    }

private:
    Code m_code = Ok;
    QString m_text;
};

} // namespace kestrel::internal
