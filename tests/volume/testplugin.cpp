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
    void StandardImage(NDicomImage&, bool flag) override { record("StandardImage", {double(flag)}); }
    void shake(double a, NDicomImage&) override { record("shake", {a}); }
    void getRotateImage(double a, double x, double y, double z, NDicomImage&) override
    {
        record("getRotateImage", {a, x, y, z});
    }
    void rotateX(double a, NDicomImage&) override { record("rotateX", {a}); }
    void rotateY(double a, NDicomImage&) override { record("rotateY", {a}); }
    void rotateZ(double a, NDicomImage&) override { record("rotateZ", {a}); }
    void rotateWXYZ(double a, double x, double y, double z, NDicomImage&) override { record("rotateWXYZ", {a, x, y, z}); }

private:
    void record(QString call, std::initializer_list<double> args = {})
    {
        for (double v : args)
            call += ' ' + QString::number(v);
        m_volume->setProperty("companionCalls", m_volume->property("companionCalls").toStringList() << call);
    }
    NVolume* m_volume = nullptr;
};

class TestVolumePlugin : public QGenericPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QGenericPluginFactoryInterface_iid)

public:
    QObject* create(const QString& key, const QString& kind) override
    {
        if (key == "volume" && kind == "vel")
            return new RecordingCompanion;
        return nullptr;
    }
};

#include "testplugin.moc"
