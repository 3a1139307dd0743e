#pragma once

#include <QSet>
#include <QWidget>

class QLineEdit;
class QListWidget;
class QTreeWidget;
class QTreeWidgetItem;

// The catalogue as patients, studies and series, narrowed by the search box (name or ID) or by a
// stored search of the catalogue. Double-clicking a series asks to open it.
class Browser : public QWidget
{
    Q_OBJECT
public:
    enum Column { Name, PatientId, BirthDate, StudyDate, Description, SeriesNumber, Modality, Images, ColumnCount };

    explicit Browser(QWidget* parent = nullptr);

    QTreeWidget* tree() const { return m_tree; }
    QListWidget* storedSearches() const { return m_searches; }
    // Series rows shown, and the item of series SERIESPK (null when not shown).
    int seriesCount() const;
    QTreeWidgetItem* seriesItem(qint64 seriesPk) const;

public slots:
    // Reads the catalogue again, keeping the current filter.
    void refresh();
    // Shows only the series a stored search of that name finds; an empty name shows all.
    void applyStoredSearch(const QString& name);

signals:
    void seriesActivated(qint64 seriesPk);
    void message(const QString& text);

private:
    void reloadStoredSearches();
    void addPatient(qint64 key);

    QLineEdit* m_search = nullptr;
    QListWidget* m_searches = nullptr;
    QTreeWidget* m_tree = nullptr;
    bool m_restricted = false;
    QSet<qint64> m_allowedSeries;
};
