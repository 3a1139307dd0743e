#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctagkey.h>
#include <dcmtk/dcmdata/dcvr.h>

#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>

class QSettings;

namespace kestrel::internal {

// The options of the confidentiality profile that keep what the basic profile would change.
struct KESTREL_TEST_EXPORT DeidentOptions {
    bool modifiedDates = false;          // dates shifted by one offset per patient, times kept
    bool patientCharacteristics = false; // sex, age, size, weight, ...
    bool deviceIdentity = false;         // station names, serial numbers, device UIDs
    bool institutionIdentity = false;    // institution name, address, department
    bool uids = false;                   // every UID kept as it is
    bool safePrivate = false;            // the private attributes listed as safe kept

    // The keys of the [options] group ("options/RetainUIDs", ...); missing keys are false.
    static DeidentOptions fromSettings(QSettings* settings);
    static const QStringList& settingsKeys();
};

// What happens to one attribute.
enum class DeidentAction {
    Keep,      // left as it is (sequences: their items are walked)
    Remove,    // X
    Empty,     // Z: zero length; a sequence loses its items
    Dummy,     // D: a value of the same VR that says nothing
    Uid,       // U: the consistent pseudonym of each UID
    ShiftDate, // dates moved by the patient's offset
};

// The de-identification table (dicom/basic-profile.tsv): the basic profile's action of every
// listed attribute, the options that keep it, and the private attributes known to be safe.
class KESTREL_TEST_EXPORT DeidentProfile
{
public:
    // The table shipped beside the program.
    static QString defaultPath();
    // The table read from PATH, kept for the process; null with STATUS set when it cannot be read.
    static const DeidentProfile* shared(const QString& path, Status* status);

    Status load(const QString& path);

    // The action for a public attribute of VR under OPTIONS; attributes not listed are kept.
    DeidentAction action(const DcmTagKey& tag, DcmEVR vr, const DeidentOptions& options) const;
    // The basic profile's own text ("X/Z/D"), empty when TAG is not listed.
    QString basicAction(const DcmTagKey& tag) const;
    // Whether element ELEMENT (00-FF within its block) of CREATOR's block in GROUP is safe.
    bool isSafePrivate(quint16 group, const QString& creator, quint8 element) const;
    // The listed public tags.
    QList<DcmTagKey> tags() const;

private:
    enum Retain { Dates = 1, Patient = 2, Device = 4, Institution = 8, Uids = 16 };
    struct Row {
        QString action;
        int retain = 0;
    };
    QHash<quint32, Row> m_rows;
    QSet<QString> m_safePrivate; // "gggg|creator|ee"
};

} // namespace kestrel::internal
