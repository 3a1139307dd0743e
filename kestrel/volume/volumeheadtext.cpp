#include "volume/volumeheadtext_p.h"

#include "platform/textnumbers_p.h"

#include <QByteArray>
#include <QStringList>

#include <algorithm>
#include <cstring>

namespace kestrel::internal {

namespace {

// The format item closing every head string: the geometry rules the volume was built by.
const QString kFormatItem = QStringLiteral("format:2;");

QString g(double value)
{
    return formatNumber(value);
}

QString doubles(const double* values, int count)
{
    QStringList parts;
    for (int i = 0; i < count; ++i)
        parts << g(values[i]);
    return parts.join(',');
}

QString ints(const qint32* values, int count)
{
    QStringList parts;
    for (int i = 0; i < count; ++i)
        parts << QString::number(values[i]);
    return parts.join(',');
}

// A UID field holds up to 64 bytes with no terminator when full.
QString uid(const char* field)
{
    return QString::fromLatin1(field, int(qstrnlen(field, 64)));
}

// Copies VALUE over the start of FIELD: only the bytes the new value covers are replaced, as the
// readers of the head string have always done.
void copyBytes(char* field, int fieldSize, const QString& value)
{
    const QByteArray bytes = value.toUtf8();
    const int n = std::min(fieldSize, int(bytes.size()));
    std::memset(field, 0, size_t(n));
    std::memcpy(field, bytes.constData(), size_t(n));
}

qint32 toInt(const QString& text)
{
    return qint32(text.toInt());
}

} // namespace

QString volumeHeadText(const VolumeHead& h)
{
    QString text;
    text += "magic:DCVM;";
    text += QString("totallen:%1;").arg(h.totallen);
    text += QString("SEPK:%1;").arg(h.SEPK);
    text += QString("SEUID:%1;").arg(uid(h.SEUID));
    text += QString("STUID:%1;").arg(uid(h.STUID));
    text += QString("volumesize:%1;").arg(ints(h.volumesize, 3));
    text += QString("volumestep:%1;").arg(ints(h.volumestep, 4));
    text += QString("voxelspace:%1;").arg(doubles(h.voxelspace, 3));
    text += QString("thinkness:%1;").arg(g(h.thinkness));
    text += QString("topxyz:%1;").arg(doubles(h.topxyz, 3));
    text += QString("orientation:%1;").arg(doubles(h.orientation, 9));
    text += QString("SamplesPerPixel:%1;").arg(h.SamplesPerPixel);
    text += QString("PhotometricInterpretation:%1;").arg(h.PhotometricInterpretation);
    text += QString("BitsAllocated:%1;").arg(h.BitsAllocated);
    text += QString("HighBit:%1;").arg(h.HighBit);
    text += QString("RescaleIntercept:%1;").arg(g(h.RescaleIntercept));
    text += QString("RescaleSlope:%1;").arg(g(h.RescaleSlope));
    text += QString("WindowCenter:%1;").arg(g(h.WindowCenter));
    text += QString("WindowWidth:%1;").arg(g(h.WindowWidth));
    text += QString("isOrder:%1;").arg(h.isOrder);
    text += QString("timeNum:%1;").arg(h.timeNum);
    text += kFormatItem;
    return text;
}

bool isCurrentVolumeHeadText(const QString& text)
{
    return text.section(';', 21, 21) + ';' == kFormatItem;
}

void parseVolumeHeadText(const QString& text, VolumeHead& h)
{
    const QStringList items = text.split(';');
    auto value = [&](int n) { return items.value(n).section(':', 1, 1); };
    auto values = [&](int n) { return value(n).split(','); };
    auto has = [&](int n) { return n < items.size(); };

    if (has(0)) {
        std::memset(h.magic, 0, 4);
        copyBytes(h.magic, int(sizeof h.magic), value(0));
    }
    if (has(1))
        h.totallen = value(1).toLongLong();
    if (has(2))
        h.SEPK = value(2).toLongLong();
    if (has(3))
        copyBytes(h.SEUID, 64, value(3));
    if (has(4))
        copyBytes(h.STUID, 64, value(4));

    auto fillInts = [&](int n, qint32* out, int count) {
        if (!has(n))
            return;
        const QStringList v = values(n);
        for (int i = 0; i < count; ++i)
            out[i] = toInt(v.value(i));
    };
    auto fillDoubles = [&](int n, double* out, int count) {
        if (!has(n))
            return;
        const QStringList v = values(n);
        for (int i = 0; i < count; ++i)
            out[i] = v.value(i).toDouble();
    };
    fillInts(5, h.volumesize, 3);
    fillInts(6, h.volumestep, 4);
    fillDoubles(7, h.voxelspace, 3);
    fillDoubles(8, &h.thinkness, 1);
    fillDoubles(9, h.topxyz, 3);
    fillDoubles(10, h.orientation, 9);
    fillInts(11, &h.SamplesPerPixel, 1);
    fillInts(12, &h.PhotometricInterpretation, 1);
    fillInts(13, &h.BitsAllocated, 1);
    fillInts(14, &h.HighBit, 1);
    fillDoubles(15, &h.RescaleIntercept, 1);
    fillDoubles(16, &h.RescaleSlope, 1);
    fillDoubles(17, &h.WindowCenter, 1);
    fillDoubles(18, &h.WindowWidth, 1);
    fillInts(19, &h.isOrder, 1);
    fillInts(20, &h.timeNum, 1);
}

int photometricCode(const QString& value, int current)
{
    static const char* const names[] = {"MONOCHROME1", "MONOCHROME2", "PALETTE COLOR", "RGB", "HSV",
                                        "ARGB", "CMYK", "YBR_FULL", "YBR_FULL_422", "YBR_PARTIAL_422",
                                        "YBR_PARTIAL_420", "YBR_ICT", "YBR_RCT"};
    const QString v = value.trimmed();
    for (int i = 0; i < int(sizeof names / sizeof names[0]); ++i)
        if (v == QLatin1String(names[i]))
            return i;
    return current;
}

int framesInBuffer(const VolumeHead& h, qint64 offset, qint64 length)
{
    for (int a = 0; a < 3; ++a)
        if (h.volumesize[a] < 0 || h.volumestep[a] < 0)
            return 0;
    if (h.volumestep[3] < 0 || offset < 0 || length < offset)
        return 0;
    __int128 extent = 0;
    if (h.volumesize[0] > 0 && h.volumesize[1] > 0 && h.volumesize[2] > 0) {
        extent = 2;
        for (int a = 0; a < 3; ++a)
            extent += __int128(h.volumesize[a] - 1) * h.volumestep[a];
    }
    const __int128 room = length - offset;
    if (extent > room)
        return 0;
    const int wanted = std::max(1, int(h.timeNum));
    int frames = 1;
    while (frames < wanted && __int128(frames) * h.volumestep[3] + extent <= room && h.volumestep[3] > 0)
        ++frames;
    return frames;
}

QString volumeFileFault(const VolumeHead& head, qint64 fileSize)
{
    // Anything up to 128 KiB is not a volume file.
    if (fileSize <= 0x20000)
        return QStringLiteral("%1 bytes, too small for a volume file").arg(fileSize);
    if (head.totallen < kVolumeHeaderBlock || head.totallen > fileSize)
        return QStringLiteral("the head says %1 bytes, the file has %2").arg(head.totallen).arg(fileSize);
    if (framesInBuffer(head, kVolumeHeaderBlock, head.totallen) < 1)
        return QStringLiteral("the head's geometry does not fit its %1 bytes").arg(head.totallen);
    return QString();
}

} // namespace kestrel::internal
