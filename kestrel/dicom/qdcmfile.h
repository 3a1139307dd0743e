#pragma once

#include "kestrel_global.h"

#include <QObject>
#include <QString>
#include <QUrl>

class DcmFileFormat;
class DcmItem;

// The value of the attribute named by its DICOM KEYWORD ("PatientName", "EchoTime") in ITEM, as
// text decoded by the item's Specific Character Set; all values joined by "\\". Empty when the
// keyword is unknown or the attribute is absent.
KESTREL_EXPORT QString getDcmAttributeText(DcmItem* item, const QString& keyword);

// One DICOM file on disk: its header read with DCMTK, the four attributes the import sorts by
// (patient name, study and series instance UIDs, instance number) and its text dump.
class KESTREL_EXPORT QDcmFile : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString patientName READ patientName WRITE setPatientName NOTIFY patientNameChanged)

public:
    explicit QDcmFile(QObject* parent = nullptr);
    ~QDcmFile() override;

    // Reads the file's header (long values stay on disk). RELEASE drops the parsed file
    // afterwards and keeps only the four attributes. False, with fileError(), when DCMTK
    // cannot read the file; the attributes then keep their previous values.
    bool loadhead(const char* path, bool release);
    bool loadhead(QString path, bool release);
    bool loadhead(QUrl url, bool release);

    void SetFileName(QString name);
    void SetFileName(const char* name);
    QString fileName() const;

    QString patientName();
    void setPatientName(QString name);
    QString studyUID() const;
    QString seriesUID() const;
    int imageNum() const;

    // The parsed file, null after a releasing load. Owned by this object.
    DcmFileFormat* dcmFileFormat();

    // The text dump of FILE with the dump's default options; errors show inside the text.
    void dumpFile(QString file, QString& out);

    bool initDB(QString);
    int getImageSize(int& width, int& height);
    int getOriginData(void* buffer, int size);

signals:
    void fileError(const QString& message);
    void patientNameChanged();

private:
    DcmFileFormat* m_fileFormat;
    QString m_fileName;
    QString m_patientName;
    QString m_studyUID;
    QString m_seriesUID;
    qint32 m_imageNum = 0;
};
