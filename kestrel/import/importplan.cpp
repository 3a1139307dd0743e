#include "import/importplan_p.h"

#include "catalog/identity_p.h"
#include "dicom/dcmvalues_p.h"
#include "dicom/headerscan_p.h"
#include "import/headerread_p.h"
#include "import/imagerecordfill_p.h"
#include "import/importrecords_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcitem.h>

#include <QHash>
#include <QPair>

#include <algorithm>
#include <map>

namespace kestrel::internal::import {

void readFacts(DcmItem* item, FileFacts& facts)
{
    facts.sopInstanceUID = dcmString(item, DCM_SOPInstanceUID).trimmed();
    facts.seriesUID = dcmString(item, DCM_SeriesInstanceUID);
    facts.studyUID = dcmString(item, DCM_StudyInstanceUID).trimmed();
    facts.instanceNumber = dcmInt(item, DCM_InstanceNumber);
}

std::vector<quint32> factTags()
{
    return {dcmTagCode(DCM_SOPInstanceUID), dcmTagCode(DCM_SeriesInstanceUID), dcmTagCode(DCM_StudyInstanceUID), dcmTagCode(DCM_InstanceNumber)};
}

bool readFacts(const HeaderScan& scan, FileFacts& facts)
{
    // The instance number as DCMTK converts it, for the plain integers it is written as.
    int number = 0;
    if (const HeaderScan::Value* value = scan.find(dcmTagCode(DCM_InstanceNumber))) {
        if (value->vr[0] != 'I' || value->vr[1] != 'S')
            return false;
        const QString text = scan.string(value->tag);
        if (!text.isEmpty()) {
            bool ok = false;
            number = text.toInt(&ok);
            if (!ok || text.startsWith(QLatin1Char('+')) || text.size() > 10)
                return false;
        }
    }
    facts.sopInstanceUID = scan.string(dcmTagCode(DCM_SOPInstanceUID)).trimmed();
    facts.seriesUID = scan.string(dcmTagCode(DCM_SeriesInstanceUID));
    facts.studyUID = scan.string(dcmTagCode(DCM_StudyInstanceUID)).trimmed();
    facts.instanceNumber = number;
    return true;
}

std::vector<HeaderScan> makeScans(int count)
{
    std::vector<quint32> wanted = factTags();
    for (quint32 tag : records::columnTags(imageTables()))
        wanted.push_back(tag);
    std::vector<HeaderScan> scans(size_t(qMax(1, count)));
    for (HeaderScan& scan : scans)
        scan.setWanted(wanted);
    return scans;
}

void readIdentity(DcmItem* item, FileFacts& facts)
{
    facts.patientID = dcmDecodedString(item, DCM_PatientID);
    facts.issuer = dcmDecodedString(item, DCM_IssuerOfPatientID);
    facts.birthDate = dcmString(item, DCM_PatientBirthDate);
    facts.patientName = dcmDecodedString(item, DCM_PatientName);
    facts.identityRead = true;
}

namespace {

QString missingUid(const FileFacts& f)
{
    if (f.seriesUID.trimmed().isEmpty())
        return QStringLiteral("no SeriesInstanceUID");
    if (f.studyUID.isEmpty())
        return QStringLiteral("no StudyInstanceUID");
    if (f.sopInstanceUID.isEmpty())
        return QStringLiteral("no SOPInstanceUID");
    return QString();
}

} // namespace

ImportPlan planImport(std::vector<FileFacts>& facts, const std::function<void(FileFacts&)>& readIdentity)
{
    ImportPlan plan;
    // Files in a fixed order: by series key, instance number and path.
    std::vector<int> order;
    for (int i = 0; i < int(facts.size()); ++i) {
        const FileFacts& f = facts[size_t(i)];
        if (!f.read)
            continue;
        const QString missing = missingUid(f);
        if (!missing.isEmpty()) {
            plan.notCatalogued << f.path + QStringLiteral(": ") + missing;
            continue;
        }
        order.push_back(i);
    }
    // Series keys made once: the sort compares them many times.
    std::vector<QString> keys(facts.size());
    for (int i : order)
        keys[size_t(i)] = facts[size_t(i)].seriesUID + QLatin1Char('#') + facts[size_t(i)].phase;
    auto seriesKey = [&](int i) -> const QString& { return keys[size_t(i)]; };
    std::sort(order.begin(), order.end(), [&](int a, int b) {
        const FileFacts& fa = facts[size_t(a)];
        const FileFacts& fb = facts[size_t(b)];
        const QString& ka = seriesKey(a);
        const QString& kb = seriesKey(b);
        if (ka != kb)
            return ka < kb;
        if (fa.instanceNumber != fb.instanceNumber)
            return fa.instanceNumber < fb.instanceNumber;
        return fa.path < fb.path;
    });

    // One file per SOP Instance UID: the first in that order.
    QHash<QString, int> firstOfUid;
    std::map<QString, PlannedSeries> series;
    for (int i : order) {
        const FileFacts& f = facts[size_t(i)];
        const auto taken = firstOfUid.constFind(f.sopInstanceUID);
        if (taken != firstOfUid.constEnd()) {
            plan.repeats.append(qMakePair(i, *taken));
            continue;
        }
        firstOfUid.insert(f.sopInstanceUID, i);
        PlannedSeries& s = series[seriesKey(i)];
        s.key = seriesKey(i);
        s.files.append(i);
    }

    // A series belongs to the study of its first file, a study to the patient of its first file.
    std::map<QString, PlannedStudy> studies;
    std::map<QString, QVector<QString>> studySeries;
    for (const auto& [key, s] : series) {
        const FileFacts& first = facts[size_t(s.files.first())];
        PlannedStudy& study = studies[first.studyUID];
        if (study.uid.isEmpty()) {
            study.uid = first.studyUID;
            study.firstFile = s.files.first();
        }
        studySeries[first.studyUID].append(key);
    }
    std::map<QString, PlannedPatient> patients;
    std::map<QString, QVector<QString>> patientStudies;
    for (const auto& [uid, study] : studies) {
        FileFacts& first = facts[size_t(study.firstFile)];
        if (!first.identityRead && readIdentity)
            readIdentity(first);
        if (first.patientID.trimmed().isEmpty()) {
            for (const QString& key : studySeries[uid])
                for (int file : series[key].files)
                    plan.withoutPatientID.append(file);
            continue;
        }
        const QString key = patientIdentityKey(first.patientID, first.issuer, first.birthDate, first.patientName);
        PlannedPatient& patient = patients[key];
        if (patient.key.isEmpty()) {
            patient.key = key;
            patient.patientID = first.patientID;
            patient.name = first.patientName;
            patient.firstFile = study.firstFile;
        }
        patientStudies[key].append(uid);
    }

    QHash<QString, int> seriesIndex, studyIndex;
    for (auto& [key, s] : series) {
        seriesIndex.insert(key, int(plan.series.size()));
        plan.series.push_back(std::move(s));
    }
    for (auto& [uid, study] : studies) {
        for (const QString& key : studySeries[uid])
            study.series.append(seriesIndex.value(key));
        studyIndex.insert(uid, int(plan.studies.size()));
        plan.studies.push_back(std::move(study));
    }
    for (auto& [key, patient] : patients) {
        for (const QString& uid : patientStudies[key])
            patient.studies.append(studyIndex.value(uid));
        plan.patients.push_back(std::move(patient));
    }
    return plan;
}

} // namespace kestrel::internal::import
