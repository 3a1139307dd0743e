#pragma once

#include "planeview.h"

#include <ndicomvolume.h>

#include <QStringList>
#include <QWidget>

#include <array>
#include <memory>

class DcmFileFormat;
class QComboBox;
class QLabel;
class QSeries;
class QSlider;
class QSpinBox;

// The open series: its volume from the cache, three linked planes (axial, coronal, sagittal), the
// window and its presets, the slab, the measuring tool and, for series with several images per
// position, the frame shown.
class SeriesView : public QWidget
{
    Q_OBJECT
public:
    enum Plane { Axial = 0, Coronal = 1, Sagittal = 2 };

    explicit SeriesView(QWidget* parent = nullptr);
    ~SeriesView() override;

    // Opens the catalogued series SERIESPK; false with the reason in *ERROR.
    bool openSeries(qint64 seriesPk, QString* error);
    bool isOpen() const { return m_volume != nullptr; }
    QString title() const { return m_title; }

    PlaneView* view(int plane) const { return m_views[plane]; }
    int index(int plane) const { return m_index[plane]; }
    int sliceCount(int plane) const;
    void setIndex(int plane, int index);
    void step(int plane, int delta);
    void setWindow(double width, double centre);
    double windowWidth() const { return m_width; }
    double windowCentre() const { return m_centre; }
    void setSlab(int thickness, RenderType render);
    void setTool(PlaneView::Tool tool);
    int frameCount() const { return m_frames.size(); }
    void setFrame(int frame);
    QString frameLabel() const;
    NDicomVolume* volume() const { return m_volume.get(); }

    // The plane last worked on, as PNG at physical aspect or as a derived DICOM image.
    bool exportPng(const QString& file, QString* error);
    bool exportDicom(const QString& file, QString* error);

signals:
    void message(const QString& text);

private:
    QWidget* makeToolBar();
    void cut(int plane);
    void cutAll();
    void updateCorners(int plane);
    void crossAt(int plane, double x, double y, double z);
    void applyPreset(int row);
    void readPresets(const QString& file);
    struct Opened;
    static Opened readSeries(qint64 seriesPk);

    std::array<PlaneView*, 3> m_views{};
    std::array<int, 3> m_index{};
    std::array<double, 3> m_cross{};
    int m_active = Axial;
    std::unique_ptr<QSeries> m_series;
    std::unique_ptr<NDicomVolume> m_volume;
    std::unique_ptr<DcmFileFormat> m_overlayFile;
    QString m_modality, m_title, m_templateFile, m_derivedUid;
    double m_width = 400, m_centre = 200;
    int m_thickness = 1;
    RenderType m_render = RenderMax;
    QList<int> m_frames;
    QStringList m_frameLabels;
    QSpinBox* m_slab = nullptr;
    QComboBox* m_renderBox = nullptr;
    QComboBox* m_presets = nullptr;
    QComboBox* m_tool = nullptr;
    QSlider* m_frameSlider = nullptr;
    QLabel* m_frameText = nullptr;
    QLabel* m_measureText = nullptr;
    bool m_opening = false;
};
