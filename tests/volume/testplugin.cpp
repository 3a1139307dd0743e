// A volume plugin for the tests: its companion records every call on the bound volume's
// "companionCalls" property.
#include "nvolume.h"
#include "velivolume.h"

#include <QGenericPlugin>
#include <QStringList>

class RecordingCompanion : public VelIVolume
{
    Q_OBJECT

public:
    void setVolume(NVolume* volume) override
    {
        m_volume = volume;
        record("setVolume");
    }
    void StandardImage(NDicomImage&, bool flag) override { record(QString("StandardImage %1").arg(flag)); }
    void shake(double a, NDicomImage&) override { record(QString("shake %1").arg(a)); }
    void getRotateImage(double a, double x, double y, double z, NDicomImage&) override
    {
        record(QString("getRotateImage %1 %2 %3 %4").arg(a).arg(x).arg(y).arg(z));
    }
    void rotateX(double a, NDicomImage&) override { record(QString("rotateX %1").arg(a)); }
    void rotateY(double a, NDicomImage&) override { record(QString("rotateY %1").arg(a)); }
    void rotateZ(double a, NDicomImage&) override { record(QString("rotateZ %1").arg(a)); }
    void rotateWXYZ(double a, double x, double y, double z, NDicomImage&) override
    {
        record(QString("rotateWXYZ %1 %2 %3 %4").arg(a).arg(x).arg(y).arg(z));
    }

private:
    void record(const QString& call)
    {
        if (m_volume)
            m_volume->setProperty("companionCalls", m_volume->property("companionCalls").toStringList() << call);
    }
    NVolume* m_volume = nullptr;
};

class TestVolumePlugin : public QGenericPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QGenericPluginFactoryInterface_iid)

public:
    QObject* create(const QString& key, const QString& specification) override
    {
        if (key == "volume" && specification == "vel")
            return new RecordingCompanion;
        return nullptr;
    }
};

#include "testplugin.moc"
