#include "picture.h"

#include <ndicomimage.h>
#include <qdcmfile.h>
#include <viewfourcornerinfoconfig.h>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcxfer.h>

#include <QFile>
#include <QFont>
#include <QPainter>
#include <QRect>
#include <QSettings>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace hostkit {

QImage windowedImage(NDicomImage& image, double width, double centre)
{
    if (image.width() <= 0 || image.height() <= 0)
        return QImage();
    std::vector<unsigned int> grey(size_t(image.width()) * size_t(image.height()));
    image.getGrayImage32(width, centre, grey.data());
    QImage out(image.width(), image.height(), QImage::Format_RGB32);
    for (int y = 0; y < image.height(); ++y)
        std::memcpy(out.scanLine(y), grey.data() + size_t(y) * size_t(image.width()), size_t(image.width()) * 4);
    return out;
}

QString directionLetters(const double* direction)
{
    if (!direction)
        return QString();
    struct Share { double size; QChar letter; };
    std::vector<Share> shares;
    const char positive[] = {'L', 'P', 'H'};
    const char negative[] = {'R', 'A', 'F'};
    for (int axis = 0; axis < 3; ++axis) {
        const double v = direction[axis];
        if (std::isfinite(v) && std::abs(v) >= 0.3)
            shares.push_back({std::abs(v), QChar(v > 0 ? positive[axis] : negative[axis])});
    }
    std::stable_sort(shares.begin(), shares.end(), [](const Share& a, const Share& b) { return a.size > b.size; });
    QString letters;
    for (const Share& share : shares)
        letters += share.letter;
    return letters;
}

namespace {

double usableSpacing(double spacing)
{
    return std::isfinite(spacing) && spacing > 0 ? spacing : 1.0;
}

void drawLetters(QImage& picture, const double* row, const double* column)
{
    const double back[2][3] = {{-row[0], -row[1], -row[2]}, {-column[0], -column[1], -column[2]}};
    QPainter painter(&picture);
    painter.setRenderHint(QPainter::TextAntialiasing);
    QFont font("DejaVu Sans");
    font.setPixelSize(std::max(9, std::min(picture.width(), picture.height()) / 18));
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(QColor(255, 210, 80));
    const QRect area = picture.rect().adjusted(2, 1, -2, -1);
    painter.drawText(area, Qt::AlignLeft | Qt::AlignVCenter, directionLetters(back[0]));
    painter.drawText(area, Qt::AlignRight | Qt::AlignVCenter, directionLetters(row));
    painter.drawText(area, Qt::AlignHCenter | Qt::AlignTop, directionLetters(back[1]));
    painter.drawText(area, Qt::AlignHCenter | Qt::AlignBottom, directionLetters(column));
}

} // namespace

QImage physicalImage(NDicomImage& image, double width, double centre, bool letters)
{
    QImage picture = windowedImage(image, width, centre);
    if (picture.isNull())
        return picture;
    const double sx = usableSpacing(image.getPixelSpacing()[0]);
    const double sy = usableSpacing(image.getPixelSpacing()[1]);
    const double pixel = std::min(sx, sy);
    const int w = std::max(1, int(std::lround(image.width() * sx / pixel)));
    const int h = std::max(1, int(std::lround(image.height() * sy / pixel)));
    if (w != picture.width() || h != picture.height())
        picture = picture.scaled(w, h, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);

    const double* rowDirection = image.getOrientation(0);
    const double* columnDirection = image.getOrientation(1);
    if (!rowDirection || !columnDirection)
        return picture;
    double row[3], column[3];
    std::copy(rowDirection, rowDirection + 3, row);
    std::copy(columnDirection, columnDirection + 3, column);
    // Head up: a plane whose columns run towards the head is shown mirrored top to bottom.
    if (column[2] > 0.5) {
        picture = picture.mirrored(false, true);
        for (double& c : column)
            c = -c;
    }
    if (letters)
        drawLetters(picture, row, column);
    return picture;
}

QStringList cornerLines(const QString& modality, const QString& corner, DcmItem* dataset)
{
    std::shared_ptr<QSettings> settings = ViewFourCornerInfoConfig::getSetting(modality);
    QStringList lines;
    if (!settings)
        return lines;
    settings->beginGroup(corner);
    QStringList keys = settings->childKeys();
    std::sort(keys.begin(), keys.end());
    for (const QString& key : keys) {
        const QStringList parsed = ViewFourCornerInfoConfig::parse(settings->value(key).toString());
        QString line = parsed.value(0);
        for (int i = 1; i < parsed.size(); ++i)
            line = line.arg(getDcmAttributeText(dataset, parsed.at(i)));
        lines << line;
    }
    settings->endGroup();
    return lines;
}

void drawCornerOverlay(QPainter& painter, const QRect& area, const QString& modality, DcmItem* dataset)
{
    const struct { const char* group; int align; } corners[] = {
        {"TopLeft", Qt::AlignLeft | Qt::AlignTop}, {"TopRight", Qt::AlignRight | Qt::AlignTop},
        {"BottomLeft", Qt::AlignLeft | Qt::AlignBottom}, {"BottomRight", Qt::AlignRight | Qt::AlignBottom}};
    for (const auto& corner : corners)
        painter.drawText(area, corner.align, cornerLines(modality, corner.group, dataset).join('\n'));
}

} // namespace hostkit

QString hostkit::whyNoGreyImage(const QString& file)
{
    DcmFileFormat dicom;
    const OFCondition loaded = dicom.loadFile(QFile::encodeName(file).constData());
    if (loaded.bad())
        return QStringLiteral("%1 is not a readable DICOM file (%2)").arg(file, QString::fromLatin1(loaded.text()));
    DcmDataset* data = dicom.getDataset();
    QStringList reasons;
    if (!data->tagExists(DCM_PixelData))
        reasons << QStringLiteral("no pixel data");
    const QString bits = getDcmAttributeText(data, QStringLiteral("BitsAllocated"));
    if (!bits.isEmpty() && bits != QLatin1String("16"))
        reasons << QStringLiteral("%1 bits allocated").arg(bits);
    const QString samples = getDcmAttributeText(data, QStringLiteral("SamplesPerPixel"));
    if (!samples.isEmpty() && samples != QLatin1String("1"))
        reasons << QStringLiteral("%1 samples per pixel (colour)").arg(samples);
    const QString frames = getDcmAttributeText(data, QStringLiteral("NumberOfFrames"));
    if (!frames.isEmpty() && frames.toInt() > 1)
        reasons << QStringLiteral("%1 frames").arg(frames);
    const QString syntax = QString::fromLatin1(DcmXfer(dicom.getDataset()->getOriginalXfer()).getXferName());
    if (reasons.isEmpty())
        reasons << QStringLiteral("its pixels cannot be decoded (%1)").arg(syntax);
    return QStringLiteral("%1 holds no 16-bit grey image: %2").arg(file, reasons.join(QStringLiteral(", ")));
}
