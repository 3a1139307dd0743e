#pragma once

#include <QObject>
#include <QString>

#include <memory>

class QDcmFiles;
class QDcmStorageSCP;

// The Receive toggle: a storage provider on PORT, the bookkeeping of received series and their
// import into the catalogue. Lives in the main thread, as the library's singletons ask.
class Receiver : public QObject
{
    Q_OBJECT
public:
    explicit Receiver(QObject* parent = nullptr);
    ~Receiver() override;

    void setPort(int port) { m_port = port; }
    void setAETitle(const QString& title) { m_aeTitle = title; }
    void setFolder(const QString& folder) { m_folder = folder; }
    int port() const { return m_port; }
    QString folder() const { return m_folder; }

    bool start(QString* error);
    void stop();
    bool isRunning() const { return m_provider != nullptr; }

signals:
    void message(const QString& text);
    // A received series is in the catalogue.
    void seriesImported(const QString& seriesUid);
    // The provider stopped on its own (CODE not 0: with an error).
    void stopped(int code, const QString& text);

private:
    int m_port = 11112;
    QString m_aeTitle = "KESTREL";
    QString m_folder;
    QDcmStorageSCP* m_provider = nullptr;
    std::unique_ptr<QDcmFiles> m_importer;
};
