#include "qseries.h"

#include "geometry/slicestack_p.h"
#include "hierarchy/hierarchy_p.h"
#include "qinstance.h"
#include "qpatient.h"
#include "qstudy.h"

#include <QDebug>
#include <QHash>
#include <QMessageLogger>
#include <QSqlDatabase>
#include <QVariant>

#include <cmath>
#include <vector>

using namespace kestrel::internal;

namespace {

// The geometry of INSTANCES for the slice stack, keyed by list index.
std::vector<geometry::StackImage> stackImages(const QList<QInstance*>& instances)
{
    std::vector<geometry::StackImage> images;
    for (int i = 0; i < instances.size(); ++i) {
        const QInstance* instance = instances[i];
        const double* p = instance->getPosition();
        const double* o = instance->getOrientation();
        images.push_back({{p[0], p[1], p[2]}, {o[0], o[1], o[2]}, {o[3], o[4], o[5]}, instance->isGeometryValid(),
                          instance->getInstanceNumber(), i});
    }
    return images;
}

// Sub-series members share pixel layout and in-plane directions.
bool compatible(const QInstance* a, const QInstance* b)
{
    if (a->getBitsAllocated() != b->getBitsAllocated())
        return false;
    if (a->getPhotometricInterpretation() != b->getPhotometricInterpretation())
        return false;
    const double* oa = a->getOrientation();
    const double* ob = b->getOrientation();
    for (int i = 0; i < 6; ++i)
        if (!(std::fabs(oa[i] - ob[i]) < 0.0001))
            return false;
    return true;
}

} // namespace

QSeries::QSeries(QObject* parent)
    : QObject(parent)
{
}

QSeries::QSeries(qint64 pk, QObject* parent)
    : QObject(parent)
    , m_seriesPK(pk)
{
}

// Children are deleted through their Qt parent, never through the instance list.
QSeries::~QSeries() = default;

QStringList QSeries::getColumnName()
{
    return cachedColumnNames(QStringLiteral("generalseries"), QPatient::getDatabBaseName(), {QStringLiteral("generalseries")});
}

QStudy* QSeries::getStudy() const
{
    return qobject_cast<QStudy*>(parent());
}

QString QSeries::getValue(QString key) const
{
    return m_allInfo.value(key);
}

void QSeries::setInstanse(QList<QInstance*> instance)
{
    m_instances = instance;
    if (!m_instances.isEmpty())
        m_seriesPK = m_instances.first()->getSeriesFK();
    for (QInstance* item : qAsConst(m_instances))
        item->setParent(this);
}

void QSeries::addInstance(QInstance* instance)
{
    m_instances.append(instance);
}

void QSeries::searchSeriesInfo()
{
    forEachRow(QStringLiteral("SELECT pk,study_fk,SeriesInstanceUID,SeriesDescription,SeriesNumber,Modality,SeriesBase FROM "
                              "generalseries WHERE pk=?"),
               {m_seriesPK}, [this](const Statement& row) {
                   m_studyFK = row.value(1).toLongLong();
                   m_seriesUID = row.value(2).toString();
                   m_seriesDescription = row.value(3).toString();
                   m_seriesNumber = row.value(4).toInt();
                   m_modality = row.value(5).toString();
                   m_seriesBase = row.value(6).toString();
               });
}

void QSeries::searchSeriesAllInfo()
{
    const QStringList names = getColumnName();
    forEachRow(QStringLiteral("SELECT * FROM generalseries WHERE pk= ?"), {m_seriesPK}, [&](const Statement& row) {
        for (int i = 0; i < names.size(); ++i)
            m_allInfo.insert(names[i], row.value(i).toString());
    });
}

void QSeries::searchAllInfo()
{
    if (m_instanceInfoLoaded || m_instances.isEmpty())
        return;
    QHash<qint64, QInstance*> byKey;
    for (QInstance* instance : qAsConst(m_instances))
        byKey.insert(instance->getInstancePK(), instance);
    const QStringList names = QInstance::getColumnName();
    forEachRow(QStringLiteral("SELECT * FROM imageformat,imagepixel,mrimageinfo where imageformat.SOPInstanceUID = "
                              "imagepixel.SOPInstanceUID and imageformat.SOPInstanceUID = mrimageinfo.SOPInstanceUID and "
                              "imageformat.series_fk=?"),
               {m_seriesPK}, [&](const Statement& row) {
                   QInstance* instance = byKey.value(row.value(0).toLongLong());
                   if (!instance) {
                       QMessageLogger("qseries", 162, "QSeries::searchAllInfo").warning("QSeries::searchAllInfo");
                       return;
                   }
                   for (int i = 0; i < names.size(); ++i)
                       instance->setValue(names[i], row.value(i).toString());
               });
    m_instanceInfoLoaded = true;
}

void QSeries::searchInstance()
{
    forEachRow(QStringLiteral("SELECT series_fk,pk,SOPInstanceUID,ImageType,InstanceNumber,FilePath FROM imageformat WHERE "
                              "series_fk=? ORDER BY `InstanceNumber` ASC"),
               {m_seriesPK}, [this](const Statement& row) {
                   auto* instance = new QInstance(row.value(1).toLongLong(), this);
                   instance->setSeriesFK(m_seriesPK);
                   instance->setSOPInstanceUID(row.value(2).toString());
                   instance->setImageType(row.value(3).toString());
                   instance->setInstanceNumber(row.value(4).toInt());
                   instance->setFilePath(row.value(5).toString());
                   m_instances.append(instance);
               });
}

void QSeries::searchInstanceInfos()
{
    // The join pairs rows by series only, so a series of N images gives N×N rows and objects.
    // Callers rely on this shape of the one-query path; one object per image comes from
    // searchInstance() followed by QInstance::searchInstanceInfo().
    forEachRow(QStringLiteral("select imageformat.pk,imageformat.SOPInstanceUID,imageformat.ImageType,imageformat.InstanceNumber,"
                              "imageformat.FilePath, imagepixel.PixelSpacing,imagepixel.ImageOrientationPatient,"
                              "imagepixel.ImagePositionPatient,imagepixel.Rows,imagepixel.Columns,imagepixel.BitsAllocated,"
                              "imageformat.series_fk ,imagepixel.series_fk from imageformat,imagepixel  WHERE "
                              "imageformat.series_fk=? and imagepixel.series_fk=? ORDER BY `imageformat`.`InstanceNumber` ASC"),
               {m_seriesPK, m_seriesPK}, [this](const Statement& row) {
                   auto* instance = new QInstance(row.value(0).toLongLong(), this);
                   instance->setSeriesFK(m_seriesPK);
                   instance->setSOPInstanceUID(row.value(1).toString());
                   instance->setImageType(row.value(2).toString());
                   instance->setInstanceNumber(row.value(3).toInt());
                   instance->setFilePath(row.value(4).toString());
                   instance->setBitsAllocated(row.value(10).toInt());
                   instance->setPixelSpacing(row.value(5).toString());
                   instance->setPosition(row.value(7).toString());
                   instance->setOrientation(row.value(6).toString());
                   instance->setImageSize(row.value(8).toInt(), row.value(9).toInt());
                   m_instances.append(instance);
               });
}

void QSeries::sortByPosition()
{
    const QList<QInstance*> given = m_instances;
    const std::vector<int> order = geometry::orderAlongNormal(stackImages(given));
    for (size_t i = 0; i < order.size(); ++i)
        m_instances[int(i)] = given[order[i]];
}

QList<QSeries*> QSeries::subSeries()
{
    QList<QSeries*> result;
    for (QInstance* instance : qAsConst(m_instances)) {
        instance->searchInstanceInfo();
        if (instance->getSamplesPerPixel() != 1)
            continue; // colour images never enter a sub-series
        QSeries* target = nullptr;
        for (QSeries* sub : qAsConst(result)) {
            if (compatible(sub->m_instances.first(), instance)) {
                target = sub;
                break;
            }
        }
        if (!target) {
            target = new QSeries();
            result.append(target);
        }
        target->addInstance(instance);
    }
    return result;
}

QSeries* QSeries::getVolumeSE()
{
    QList<QSeries*> subs = subSeries();
    if (subs.isEmpty())
        return nullptr;
    int best = 0;
    for (int i = 1; i < subs.size(); ++i)
        if (subs[i]->m_instances.size() > subs[best]->m_instances.size())
            best = i;
    QSeries* chosen = subs.takeAt(best);
    qDeleteAll(subs);

    const QList<QInstance*> images = chosen->m_instances;
    delete chosen;
    const geometry::SliceStack stack = geometry::buildSliceStack(stackImages(images));
    if (stack.slices.empty())
        return nullptr;

    auto* volume = new QSeries();
    volume->m_modality = m_modality;
    volume->m_seriesUID = m_seriesUID;
    volume->m_seriesPK = m_seriesPK;
    volume->m_studyFK = m_studyFK;
    volume->m_seriesDescription = m_seriesDescription;
    volume->m_seriesNumber = m_seriesNumber;
    volume->m_seriesBase = m_seriesBase;
    for (const geometry::StackSlice& slice : stack.slices)
        volume->m_instances.append(images[int(slice.frames.front().key)]); // a volume takes one image per slice
    if (stack.framesPerSlice == 0) {
        // Echoes or time points give every position the same number of images; a position that
        // holds more than the others is a repeated slice, and the volume shows only its first.
        QStringList repeated;
        for (const geometry::StackSlice& slice : stack.slices)
            for (size_t f = 1; f < slice.frames.size(); ++f)
                repeated << QString::number(slice.frames[f].instanceNumber);
        qWarning() << "QSeries::getVolumeSE: series" << m_seriesUID << "repeats slice positions; instances"
                   << repeated.join(',') << "stand where an earlier one does and are not in the volume";
    }
    m_isOrder = stack.startsAtFirstImage ? 1 : -1;
    return volume;
}
