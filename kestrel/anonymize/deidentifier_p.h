#pragma once

#include "anonymize/deidentprofile_p.h"
#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcmetinf.h>

#include <QList>
#include <QString>

#include <functional>

class DcmFileFormat;
class DcmElement;
class DcmItem;

namespace kestrel::internal {

// What restores a de-identified file: the original of every top-level element that was changed
// or removed (meta header elements apart), and the tags that were added.
struct KESTREL_TEST_EXPORT DeidentRecord {
    DcmDataset elements;
    DcmMetaInfo meta;
    QList<DcmTagKey> added;
    // The digest of the source's elements but its pixels: two files of one SOP instance share a
    // record only when it is the same.
    QString sourceDigest;

    // As the two texts kept in the catalogue (base64 of Explicit VR Little Endian encodings, and
    // the tags as "gggg,eeee" separated by blanks), and back.
    QString elementsText();
    QString addedText() const;
    bool read(const QString& elementsText, const QString& addedText);
    // The digest for a source FILE, before anything changes.
    static QString digestOf(DcmFileFormat& file);
    // Takes in what OTHER kept and this record lacks (an earlier run of the same file).
    void merge(DcmItem& otherElements, DcmItem& otherMeta, const QList<DcmTagKey>& otherAdded);
    // Puts the originals back into FILE and removes what was added.
    void restore(DcmFileFormat& file);
};

// What a run takes from the catalogue: the pseudonyms of one patient and of every UID.
struct DeidentPseudonyms {
    // The replacement of a UID, the same for every file; empty when none could be had.
    std::function<QString(const QString& uid)> uid;
    QString patientId;   // put into a present PatientID
    QString patientName; // put into a present PatientName
    int dateShiftDays = 0;
};

// Applies the profile to one file: every listed attribute at every nesting level, private
// attributes removed (unless safe and kept by the option), only present attributes touched, then
// Patient Identity Removed, the method and its code sequence set. The original of every
// top-level element it changed or removed and the tags it added are kept in record().
class KESTREL_TEST_EXPORT Deidentifier
{
public:
    Deidentifier(const DeidentProfile& profile, const DeidentOptions& options, DeidentPseudonyms pseudonyms);

    Status apply(DcmFileFormat& file);

    DeidentRecord& record() { return m_record; }

    // The code values (DCM) of the profile and of the options in use, and their meanings.
    static QList<QPair<QString, QString>> methodCodes(const DeidentOptions& options);

private:
    bool walkItem(DcmItem* item, bool top);
    bool applyAction(DcmItem* item, DcmElement* element, DeidentAction action, bool top);
    bool replaceUids(DcmElement* element);
    bool shiftDates(DcmElement* element);
    void keepOriginal(DcmElement* element);
    void markDeidentified(DcmDataset* dataset);
    void stripMetaHeader(DcmFileFormat& file);

    const DeidentProfile& m_profile;
    DeidentOptions m_options;
    DeidentPseudonyms m_pseudonyms;
    DeidentRecord m_record;
    Status m_status;
};

} // namespace kestrel::internal
