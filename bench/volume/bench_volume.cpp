// Volume benchmarks: building from files, the cache file, the slab reductions, and the 4-D volume
// of a real multi-echo series, each printed next to its peer or limit (dcm2niix, a plain read,
// memcpy of the bytes touched, numpy).
//   bench_volume [--small-only] [--no-series] [--frames-only] [--slabs-only]
#include "syntheticdicom.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "qinstance.h"
#include "qseries.h"

#include "../timing.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

namespace {

// Best of N runs, in milliseconds.
double best(int runs, const std::function<void()>& body)
{
    double result = 1e300;
    for (int r = 0; r < runs; ++r) {
        QElapsedTimer timer;
        timer.start();
        body();
        result = std::min(result, timer.nsecsElapsed() / 1e6);
    }
    return result;
}

double memcpyMs(qint64 bytes)
{
    std::vector<char> a(static_cast<size_t>(bytes), 1), b(static_cast<size_t>(bytes));
    return best(3, [&] { std::memcpy(b.data(), a.data(), size_t(bytes)); });
}

void line(const char* what, double ms, const char* peer, double peerMs)
{
    std::printf("  %-44s %9.2f ms   %-22s %9.2f ms   ratio %5.2f\n", what, ms, peer, peerMs, peerMs > 0 ? ms / peerMs : 0.0);
}

void reductions(NDicomVolume& v, const QString& rawFile)
{
    const int* n = v.geSize();
    const char* axes[] = {"", "sagittal (i)", "coronal (j)", "axial (k)"};
    const char* rules[] = {"MIP", "MinIP", "avg"};
    for (int axis = 3; axis >= 1; --axis) {
        const int length = n[axis - 1];
        for (int thickness : {length, 20}) {
            const qint64 plane = qint64(n[0]) * n[1] * n[2] / length * 2;
            const qint64 touched = plane * std::min(thickness, length);
            const double limit = memcpyMs(touched);
            for (int render = 0; render < 3; ++render) {
                NDicomImage image;
                const double ms = best(3, [&] {
                    v.getDicomImagePlane(image, length / 2, thickness, EMainAxis(axis), RenderType(render == 0 ? 0 : render));
                });
                char what[96];
                std::snprintf(what, sizeof what, "%s %s, %d planes", axes[axis], rules[render], std::min(thickness, length));
                line(what, ms, "memcpy same bytes", limit);
            }
        }
    }
    // The same slabs one at a time after a pause, as a user scrolls: what waking the second
    // core's thread adds (median of 15, each after 20 ms idle).
    for (int axis : {1, 3})
        for (int thickness : {n[axis - 1], 20}) {
            NDicomImage image;
            const std::vector<double> ms = sortedTimesAfterPause(15, 20, [&] {
                v.getDicomImagePlane(image, n[axis - 1] / 2, thickness, EMainAxis(axis), RenderMax);
            });
            std::printf("  %-44s %9.2f ms   (one after 20 ms idle, median of 15)\n",
                        qPrintable(QString("%1 MIP, %2 planes, idle first").arg(axes[axis]).arg(std::min(thickness, n[axis - 1]))),
                        ms[ms.size() / 2]);
        }
    // numpy as a peer for the whole-volume maximum along each axis.
    const QString python = QStandardPaths::findExecutable("python3", {"/usr/bin"});
    if (python.isEmpty() || rawFile.isEmpty())
        return;
    const QString script = QString(
        "import numpy as np,time\n"
        "a=np.fromfile('%1',dtype=np.int16,offset=512)[:%2*%3*%4].reshape(%4,%3,%2)\n"
        "for ax,name in ((0,'axial'),(1,'coronal'),(2,'sagittal')):\n"
        "  t=min((lambda s:(a.max(axis=ax),time.perf_counter()-s)[1])(time.perf_counter()) for _ in range(3))\n"
        "  print('  numpy max(axis=%d) %-8s %9.2f ms'%(ax,name,t*1e3))\n")
        .arg(rawFile).arg(n[0]).arg(n[1]).arg(n[2]);
    QProcess p;
    p.start(python, {"-c", script});
    if (p.waitForFinished(300000))
        std::printf("%s", p.readAllStandardOutput().constData());
}

// SLABSONLY: the slab reductions of a volume made in memory, nothing else.
void run(int x, int y, int z, bool withSeries, const QString& tmp, bool slabsOnly = false)
{
    std::printf("\n== %d x %d x %d, 16-bit\n", x, y, z);
    const QString folder = tmp + QString("/%1x%2x%3").arg(x).arg(y).arg(z);
    QDir().mkpath(folder);
    NDicomVolume v;
    if (withSeries) {
        SyntheticImage base;
        base.rows = y;
        base.columns = x;
        base.bitsStored = 12;
        std::mt19937 rng(1);
        std::vector<quint16> noise(size_t(x) * y);
        for (auto& s : noise)
            s = quint16(rng() & 0xfff);
        base.pixel = [&](int i, int j, int) { return int(noise[size_t(j) * x + i]); };
        const QStringList files = writeSyntheticSeries(folder + "/dicom", base, z);
        QSeries series;
        for (int k = 0; k < files.size(); ++k) {
            auto* instance = new QInstance(&series);
            instance->setFilePath(files[k]);
            instance->setPosition(QString("0\\0\\%1").arg(k));
            instance->setOrientation("1\\0\\0\\0\\1\\0");
            instance->setPixelSpacing("1\\1");
            instance->setImageSize(y, x);
            series.addInstance(instance);
        }
        const double load = best(1, [&] { v.loadSeries(&series); });
        double peer = 0;
        const QString dcm2niix = QStandardPaths::findExecutable("dcm2niix");
        if (!dcm2niix.isEmpty()) {
            QDir().mkpath(folder + "/nii");
            peer = best(1, [&] {
                QProcess::execute(dcm2niix, {"-z", "n", "-o", folder + "/nii", folder + "/dicom"});
            });
        }
        line("loadSeries from files", load, dcm2niix.isEmpty() ? "dcm2niix (absent)" : "dcm2niix", peer);
    } else {
        VolumeHead head;
        std::memset(&head, 0, sizeof head);
        head.volumesize[0] = x, head.volumesize[1] = y, head.volumesize[2] = z;
        head.volumestep[0] = 2, head.volumestep[1] = 2 * x, head.volumestep[2] = 2 * x * y;
        head.volumestep[3] = 2 * x * y * z;
        head.timeNum = 1;
        head.orientation[0] = head.orientation[4] = head.orientation[8] = 1;
        head.voxelspace[0] = head.voxelspace[1] = head.voxelspace[2] = 1;
        std::vector<short> data(size_t(x) * y * z);
        std::mt19937 rng(2);
        for (auto& s : data)
            s = short(int(rng() & 0xffff) - 32768);
        NDicomVolume made(&head, reinterpret_cast<char*>(data.data()), qint64(data.size()) * 2);
        v.clone(&made);
    }
    if (slabsOnly) {
        reductions(v, QString());
        return;
    }
    const QString cache = folder + "/volume.data";
    v.saveAs(cache);
    NDicomVolume loaded;
    const double fromCache = best(3, [&] { loaded.loadVolume(cache); });
    const double plain = best(3, [&] {
        QFile f(cache);
        f.open(QIODevice::ReadOnly);
        QByteArray all = f.readAll();
    });
    line("loadVolume (cache file)", fromCache, "plain read", plain);
    reductions(loaded, cache);
}

// The 4-D volume of FOLDER's series (its frames found in the headers, then read) beside dcm2niix
// converting the same folder: RUNS timed runs of each after one to warm the page cache.
void framesOfSeries(const QString& folder, const QString& tmp, int runs)
{
    const QString name = QFileInfo(folder).fileName();
    if (!QFileInfo(folder).isDir()) {
        std::printf("\n== 4-D volume of %s: the shared data is not there, left out\n", qPrintable(name));
        return;
    }
    QSeries series;
    for (const QString& file : QDir(folder).entryList(QDir::Files, QDir::Name)) {
        auto* instance = new QInstance(&series);
        instance->setFilePath(QDir(folder).filePath(file));
        series.addInstance(instance);
    }
    auto measure = [&](const std::function<void()>& body) { return sortedRunTimes(runs, body); };
    int frames = 0;
    const std::vector<double> headers = measure([&] { getSeriesFrames(&series); });
    const std::vector<double> ours = measure([&] {
        NDicomVolume v;
        loadSeriesFrames(v, getSeriesFrames(&series), 0);
        frames = v.getHead()->timeNum;
    });
    const QString nifti = tmp + "/frames.nii";
    const std::vector<double> written = measure([&] {
        NDicomVolume v;
        loadSeriesFrames(v, getSeriesFrames(&series), 0);
        saveVolumeAsNifti(v, nifti);
    });
    std::printf("\n== 4-D volume of %s: %d files, %d frames (%d runs each, page cache warm)\n", qPrintable(name),
                series.getInstances().size(), frames, runs);
    auto report = [](const char* what, const std::vector<double>& ms) {
        std::printf("  %-44s best %8.2f ms   median %8.2f ms   range %.2f-%.2f ms\n", what, ms.front(), ms[ms.size() / 2],
                    ms.front(), ms.back());
    };
    report("getSeriesFrames (headers, frames)", headers);
    report("+ loadSeriesFrames (the 4-D volume)", ours);
    report("+ saveVolumeAsNifti (.nii)", written);
    const QString dcm2niix = QStandardPaths::findExecutable("dcm2niix");
    if (dcm2niix.isEmpty()) {
        std::printf("  dcm2niix (absent)\n");
        return;
    }
    const QString out = tmp + "/frames-nii";
    QDir().mkpath(out);
    const std::vector<double> peer = measure([&] {
        QProcess p;
        p.setStandardOutputFile(QProcess::nullDevice());
        p.setStandardErrorFile(QProcess::nullDevice());
        p.start(dcm2niix, {"-b", "n", "-z", "n", "-p", "n", "-w", "1", "-f", "v", "-o", out, folder});
        p.waitForFinished(120000);
    });
    report("dcm2niix, same folder (a process, .nii)", peer);
    std::printf("  ratio of the medians, volume and .nii / dcm2niix %5.2f\n", written[written.size() / 2] / peer[peer.size() / 2]);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // The series objects have no catalogue here; their lookups' warnings are not the figures.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    const QStringList args = app.arguments();
    QTemporaryDir tmp;
    const bool series = !args.contains("--no-series");
    const QString data = qEnvironmentVariable("KESTREL_SHARED_DATA", KESTREL_BENCH_DATA);
    if (args.contains("--slabs-only")) {
        run(256, 256, 250, false, tmp.path(), true);
        if (!args.contains("--small-only"))
            run(512, 512, 300, false, tmp.path(), true);
        return 0;
    }
    if (args.contains("--frames-only")) {
        framesOfSeries(data + "/siemens_gre_2echo", tmp.path(), 15);
        return 0;
    }
    std::printf("Volume benchmarks (best of 3, page cache warm; ratio = ours / peer)\n");
    framesOfSeries(data + "/siemens_gre_2echo", tmp.path(), 15);
    run(256, 256, 250, series, tmp.path());
    if (!args.contains("--small-only"))
        run(512, 512, 300, series, tmp.path());
    return 0;
}
