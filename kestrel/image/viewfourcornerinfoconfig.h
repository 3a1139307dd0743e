#pragma once

#include "kestrel_global.h"

#include <QObject>
#include <QSettings>
#include <QString>
#include <QStringList>

#include <memory>

// Per-modality settings of the text shown in the four corners of an image view
// (config/viewinfo/modality/<modality>.ini), and the conversion of one template line such as
// "{PatientName} {PatientAge}" into a Qt format string ("%1 %2") plus the fields it names.
class KESTREL_EXPORT ViewFourCornerInfoConfig : public QObject
{
    Q_OBJECT

public:
    ViewFourCornerInfoConfig();
    ViewFourCornerInfoConfig(const ViewFourCornerInfoConfig& other);
    ~ViewFourCornerInfoConfig() override;

    // The settings of MODALITY, made on first use and kept for the life of the process (the
    // same object on every call). A missing file gives an empty settings object. RELOAD = true
    // drops the kept object and reads the file again (after the host has edited it).
    static std::shared_ptr<QSettings> getSetting(QString modality, bool reload = false);

    // The converted template followed by the field names in order of appearance.
    static QStringList parse(QString templateText);
};
