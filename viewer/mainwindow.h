#pragma once

#include <QMainWindow>

class Browser;
class ImportJob;
class QAction;
class QLabel;
class QProgressBar;
class Receiver;
class SeriesView;

// The viewer's window: the catalogue browser beside the open series, the import, receive and
// export commands, and a status line with the import's progress.
class MainWindow : public QMainWindow
{
    Q_OBJECT
public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    Browser* browser() const { return m_browser; }
    SeriesView* seriesView() const { return m_series; }
    ImportJob* importJob() const { return m_import; }
    Receiver* receiver() const { return m_receiver; }
    QAction* receiveAction() const { return m_receive; }
    QString statusText() const;

public slots:
    void showStatus(const QString& text);
    bool openSeries(qint64 seriesPk);
    bool importPaths(const QStringList& paths);
    void setReceiving(bool on);

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void makeMenus();
    void exportPlane(bool dicom);

    Browser* m_browser = nullptr;
    SeriesView* m_series = nullptr;
    ImportJob* m_import = nullptr;
    Receiver* m_receiver = nullptr;
    QAction* m_receive = nullptr;
    QLabel* m_status = nullptr;
    QProgressBar* m_progress = nullptr;
};
