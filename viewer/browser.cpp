#include "browser.h"

#include <qpatient.h>
#include <qpatients.h>
#include <qseries.h>
#include <qstudy.h>
#include <veldatabaseconnection.h>

#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QSplitter>
#include <QSqlQuery>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <QVariant>

#include <memory>

namespace {

constexpr int kKeyRole = Qt::UserRole;
constexpr int kLevelRole = Qt::UserRole + 1;
enum Level { PatientLevel, StudyLevel, SeriesLevel };

QString dicomDate(const QString& text)
{
    return text.size() == 8 ? QString("%1-%2-%3").arg(text.left(4), text.mid(4, 2), text.right(2)) : text;
}

} // namespace

Browser::Browser(QWidget* parent)
    : QWidget(parent)
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_search = new QLineEdit(this);
    m_search->setObjectName("search");
    m_search->setPlaceholderText("Search by patient name or ID");
    m_search->setClearButtonEnabled(true);
    layout->addWidget(m_search);

    auto* split = new QSplitter(Qt::Vertical, this);
    m_tree = new QTreeWidget(split);
    m_tree->setObjectName("catalogue");
    m_tree->setHeaderLabels({"Name", "ID", "Birth date", "Study date", "Description", "Series", "Modality", "Images"});
    m_tree->setUniformRowHeights(true);
    m_tree->setAlternatingRowColors(true);
    auto* searchBox = new QWidget(split);
    auto* searchLayout = new QVBoxLayout(searchBox);
    searchLayout->setContentsMargins(0, 0, 0, 0);
    searchLayout->addWidget(new QLabel("Stored searches", searchBox));
    m_searches = new QListWidget(searchBox);
    m_searches->setObjectName("storedSearches");
    searchLayout->addWidget(m_searches);
    split->setStretchFactor(0, 4);
    split->setStretchFactor(1, 1);
    layout->addWidget(split, 1);

    connect(m_search, &QLineEdit::textChanged, this, [this] { refresh(); });
    connect(m_tree, &QTreeWidget::itemDoubleClicked, this, [this](QTreeWidgetItem* item) {
        if (item->data(0, kLevelRole).toInt() == SeriesLevel)
            emit seriesActivated(item->data(0, kKeyRole).toLongLong());
    });
    connect(m_searches, &QListWidget::itemClicked, this, [this](QListWidgetItem* item) {
        applyStoredSearch(item->data(kKeyRole).toString());
    });
}

void Browser::reloadStoredSearches()
{
    m_searches->clear();
    auto* all = new QListWidgetItem("(whole catalogue)", m_searches);
    all->setData(kKeyRole, QString());
    QSqlQuery query;
    if (!query.exec("SELECT DISTINCT InquiryName FROM andvancequiry ORDER BY InquiryName"))
        return;
    while (query.next()) {
        const QString name = query.value(0).toString();
        if (name.isEmpty())
            continue;
        auto* item = new QListWidgetItem(name, m_searches);
        item->setData(kKeyRole, name);
    }
}

void Browser::applyStoredSearch(const QString& name)
{
    m_allowedSeries.clear();
    m_restricted = !name.isEmpty();
    if (m_restricted) {
        QPatients patients;
        patients.advanceQueryByName(name);
        for (QSeries* series : patients.getAllSeries())
            m_allowedSeries.insert(series->getSeriesPK());
        emit message(QString("stored search %1: %2 series").arg(name).arg(m_allowedSeries.size()));
    }
    refresh();
}

void Browser::refresh()
{
    const QString selected = m_searches->currentItem() ? m_searches->currentItem()->text() : QString();
    m_tree->setUpdatesEnabled(false);
    m_tree->clear();
    for (qint64 key : getPatientKeys())
        addPatient(key);
    m_tree->expandAll();
    for (int c = 0; c < ColumnCount; ++c)
        m_tree->resizeColumnToContents(c);
    m_tree->setUpdatesEnabled(true);
    if (m_searches->count() == 0 || !m_restricted)
        reloadStoredSearches();
    const auto found = m_searches->findItems(selected, Qt::MatchExactly);
    if (!found.isEmpty())
        m_searches->setCurrentItem(found.first());
}

void Browser::addPatient(qint64 key)
{
    QPatient patient(key);
    patient.searchPatientInfo();
    patient.searchPatientAllInfo();
    const QString id = patient.getValue("PatientID");
    const QString filter = m_search->text().trimmed();
    if (!filter.isEmpty() && !patient.patientName().contains(filter, Qt::CaseInsensitive)
        && !id.contains(filter, Qt::CaseInsensitive))
        return;
    patient.searchStudys();
    auto patientItem = std::make_unique<QTreeWidgetItem>(
        QStringList{patient.patientName(), id, dicomDate(patient.getValue("PatientBirthDate"))});
    patientItem->setData(0, kKeyRole, key);
    patientItem->setData(0, kLevelRole, PatientLevel);
    for (QStudy* study : patient.getStudys()) {
        study->searchStudyAllInfo();
        auto* studyItem = new QTreeWidgetItem(
            QStringList{QString(), QString(), QString(), dicomDate(study->getValue("StudyDate")), study->getStudyDescription()});
        studyItem->setData(0, kKeyRole, study->getStudyPK());
        studyItem->setData(0, kLevelRole, StudyLevel);
        for (QSeries* series : study->getSeries()) {
            if (m_restricted && !m_allowedSeries.contains(series->getSeriesPK()))
                continue;
            series->searchSeriesInfo();
            auto* item = new QTreeWidgetItem(studyItem);
            item->setText(Description, series->getSeriesDescription());
            item->setText(SeriesNumber, QString::number(series->getSeriesNumber()));
            item->setText(Modality, series->getSeriesModality());
            item->setText(Images, QString::number(series->getInstances().size()));
            item->setData(0, kKeyRole, series->getSeriesPK());
            item->setData(0, kLevelRole, SeriesLevel);
        }
        if (studyItem->childCount() > 0)
            patientItem->addChild(studyItem);
        else
            delete studyItem;
    }
    if (patientItem->childCount() > 0 || !m_restricted)
        m_tree->addTopLevelItem(patientItem.release());
}

int Browser::seriesCount() const
{
    int count = 0;
    for (QTreeWidgetItemIterator it(m_tree); *it; ++it)
        count += (*it)->data(0, kLevelRole).toInt() == SeriesLevel;
    return count;
}

QTreeWidgetItem* Browser::seriesItem(qint64 seriesPk) const
{
    for (QTreeWidgetItemIterator it(m_tree); *it; ++it)
        if ((*it)->data(0, kLevelRole).toInt() == SeriesLevel && (*it)->data(0, kKeyRole).toLongLong() == seriesPk)
            return *it;
    return nullptr;
}
