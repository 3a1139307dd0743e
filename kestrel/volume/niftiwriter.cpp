#include "volume/niftiwriter_p.h"

#include "ndicomvolume.h"
#include "volume/framevolume_p.h"

#include <nifti1_io.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <algorithm>
#include <cstring>
#include <memory>

namespace kestrel::internal::nifti {

namespace {

struct NimFree {
    void operator()(nifti_image* nim) const
    {
        nim->data = nullptr; // the voxels belong to the caller
        nifti_image_free(nim);
    }
};

// The voxel type and the bytes to write: stored values when every frame shares one rescale
// (signed 16-bit where they fit), real values as 32-bit floats otherwise.
int dataType(const NiftiVolume& v, qint64 voxels, std::vector<float>& reals, double& slope, double& intercept)
{
    const auto& r = v.rescales;
    const bool shared = std::all_of(r.begin(), r.end(), [&](const auto& x) { return x == r.front(); });
    const int bytes = v.head.volumestep[0];
    slope = r.empty() ? v.head.RescaleSlope : r.front().first;
    intercept = r.empty() ? v.head.RescaleIntercept : r.front().second;
    if (bytes == 4)
        return shared ? DT_INT32 : 0;
    if (bytes != 2)
        return 0;
    const quint16* words = reinterpret_cast<const quint16*>(v.voxels);
    if (shared) {
        const quint16 most = voxels > 0 ? *std::max_element(words, words + voxels) : 0;
        return most <= 32767 ? DT_INT16 : DT_UINT16;
    }
    const qint64 perFrame = voxels / qint64(r.size());
    reals.resize(size_t(voxels));
    for (qint64 n = 0; n < voxels; ++n) {
        const auto& frame = r[size_t(n / perFrame)];
        reals[size_t(n)] = float(words[n] * frame.first + frame.second);
    }
    slope = 1;
    intercept = 0;
    return DT_FLOAT32;
}

Status writeSideFile(const NiftiVolume& v, const QString& file)
{
    if (v.labels.isEmpty())
        return Status::ok();
    QJsonArray frames;
    for (int t = 0; t < v.labels.size(); ++t)
        frames.append(QJsonObject{{"index", t}, {"label", v.labels[t]}});
    const QJsonObject root{
        {"SeriesInstanceUID", QString::fromLatin1(v.head.SEUID, int(qstrnlen(v.head.SEUID, sizeof v.head.SEUID)))},
        {"Frames", frames}};
    QSaveFile out(sideFileName(file));
    if (!out.open(QIODevice::WriteOnly) || out.write(QJsonDocument(root).toJson()) < 0 || !out.commit())
        return Status::failed("cannot write " + sideFileName(file));
    return Status::ok();
}

} // namespace

std::array<double, 16> rasAffine(const VolumeHead& h)
{
    std::array<double, 16> m{};
    for (int row = 0; row < 3; ++row) {
        const double sign = row < 2 ? -1 : 1;
        for (int axis = 0; axis < 3; ++axis)
            m[size_t(4 * row + axis)] = sign * h.voxelspace[axis] * h.orientation[3 * axis + row];
        m[size_t(4 * row + 3)] = sign * h.topxyz[row];
    }
    m[15] = 1;
    return m;
}

QString sideFileName(const QString& file)
{
    QString base = file;
    for (const char* ext : {".nii.gz", ".nii"})
        if (base.endsWith(QLatin1String(ext), Qt::CaseInsensitive)) {
            base.chop(int(std::strlen(ext)));
            break;
        }
    return base + ".json";
}

Status writeNifti(const NiftiVolume& v, const QString& file)
{
    const bool gz = file.endsWith(".nii.gz", Qt::CaseInsensitive);
    if (!gz && !file.endsWith(".nii", Qt::CaseInsensitive))
        return Status(Status::InvalidInput, file + ": the name must end in .nii or .nii.gz");
    if (gz && !nifti_compiled_with_zlib())
        return Status::failed("the NIfTI library cannot compress (.nii.gz)");
    const VolumeHead& h = v.head;
    const int frames = std::max(1, int(h.timeNum));
    if (!v.voxels || h.volumesize[0] <= 0 || h.volumesize[1] <= 0 || h.volumesize[2] <= 0
        || (!v.rescales.empty() && int(v.rescales.size()) != frames))
        return Status(Status::InvalidInput, "the volume is empty");
    const qint64 voxels = qint64(h.volumesize[0]) * h.volumesize[1] * h.volumesize[2] * frames;
    std::vector<float> reals;
    double slope = 1, intercept = 0;
    const int type = dataType(v, voxels, reals, slope, intercept);
    if (type == 0)
        return Status(Status::InvalidInput, QString("voxels of %1 bytes cannot be written").arg(h.volumestep[0]));

    const int dims[8] = {frames > 1 ? 4 : 3, h.volumesize[0], h.volumesize[1], h.volumesize[2], frames, 1, 1, 1};
    std::unique_ptr<nifti_image, NimFree> nim(nifti_make_new_nim(dims, type, 0));
    if (!nim)
        return Status::failed("the NIfTI library refused the volume's sizes");
    for (int a = 0; a < 3; ++a)
        nim->pixdim[a + 1] = float(h.voxelspace[a]);
    nifti_update_dims_from_array(nim.get());
    const std::array<double, 16> affine = rasAffine(h);
    mat44 m;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            m.m[r][c] = float(affine[size_t(4 * r + c)]);
    nim->sto_xyz = m;
    nim->sform_code = NIFTI_XFORM_SCANNER_ANAT;
    nim->qform_code = NIFTI_XFORM_SCANNER_ANAT;
    float dx, dy, dz;
    nifti_mat44_to_quatern(m, &nim->quatern_b, &nim->quatern_c, &nim->quatern_d, &nim->qoffset_x, &nim->qoffset_y,
                           &nim->qoffset_z, &dx, &dy, &dz, &nim->qfac);
    nim->qto_xyz = nifti_quatern_to_mat44(nim->quatern_b, nim->quatern_c, nim->quatern_d, nim->qoffset_x,
                                          nim->qoffset_y, nim->qoffset_z, nim->dx, nim->dy, nim->dz, nim->qfac);
    nim->xyz_units = NIFTI_UNITS_MM;
    nim->scl_slope = float(slope);
    nim->scl_inter = float(intercept);
    nim->slice_dim = 3;
    std::strncpy(nim->descrip, "kestrel", sizeof nim->descrip - 1);
    nim->data = reals.empty() ? const_cast<char*>(v.voxels) : static_cast<void*>(reals.data());
    nim->nifti_type = NIFTI_FTYPE_NIFTI1_1;
    const QByteArray name = QFile::encodeName(file);
    if (nifti_set_filenames(nim.get(), name.constData(), 0, 1) != 0)
        return Status(Status::InvalidInput, "the NIfTI library refused the name " + file);
    QFile::remove(file);
    // Options 1 | 2: the data too, and the file left open so that a failure shows as no file.
    znzFile out = nifti_image_write_hdr_img2(nim.get(), 1 | 2, "wb", nullptr, nullptr);
    if (!out || !QFileInfo::exists(file)) {
        QFile::remove(file);
        return Status::failed("cannot write " + file);
    }
    znzclose(out);
    const qint64 expected = qint64(nim->iname_offset) + qint64(nim->nvox) * nim->nbyper;
    if (!gz && QFileInfo(file).size() != expected) {
        QFile::remove(file);
        return Status::failed(QString("%1 is short: %2 of %3 bytes written").arg(file).arg(QFileInfo(file).size()).arg(expected));
    }
    return writeSideFile(v, file);
}

} // namespace kestrel::internal::nifti

bool saveVolumeAsNifti(NDicomVolume& volume, const QString& file, const QStringList& labels, QString* error)
{
    using namespace kestrel::internal;
    nifti::NiftiVolume v;
    v.head = *volume.getHead();
    v.voxels = FrameVolumeBuilder::frameData(volume, 0);
    const int frames = std::max(1, int(v.head.timeNum));
    if (v.voxels && !FrameVolumeBuilder::frameData(volume, frames - 1))
        v.voxels = nullptr; // fewer frames in the buffer than the head says
    for (int t = 0; t < frames; ++t) {
        double slope = 1, intercept = 0;
        frameRescale(volume.getStrVolumeHead(), v.head, t, slope, intercept);
        v.rescales.emplace_back(slope, intercept);
    }
    v.labels = labels;
    const Status written = nifti::writeNifti(v, file);
    if (error)
        *error = written.text();
    return written.isOk();
}
