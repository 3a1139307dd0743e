#include "command.h"
#include "picture.h"

#include "ndicomimage.h"

#include <QCommandLineParser>

#include <cmath>

#include <cstdio>

namespace {

int runRoi(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Measures a region of a DICOM image: mean, min, max and size.");
    parser.addHelpOption();
    parser.addPositionalArgument("FILE", "DICOM image file");
    parser.addPositionalArgument("SHAPE", "rect X Y W H | ellipse X Y W H | line X1 Y1 X2 Y2");
    // Negative coordinates must not be taken for options.
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    if (const auto status = app::parseArguments(parser, "roi", args))
        return *status;
    const QStringList p = parser.positionalArguments();
    if (p.size() != 6)
        return app::fail("roi", "usage: kestrel roi FILE rect|ellipse X Y W H, or FILE line X1 Y1 X2 Y2");
    double v[4];
    for (int i = 0; i < 4; ++i) {
        bool ok = false;
        v[i] = p[2 + i].toDouble(&ok);
        if (!ok || !std::isfinite(v[i]))
            return app::fail("roi", QString("not a finite number: %1").arg(p[2 + i]));
    }
    NDicomImage image;
    if (!image.readReferenceFileInfo(p[0], true))
        return app::fail("roi", hostkit::whyNoGreyImage(p[0]));
    markShowValue value;
    const QString shape = p[1];
    const char* unit = "pixels";
    if (shape == "rect") {
        value = image.getRect(QRectF(v[0], v[1], v[2], v[3]));
    } else if (shape == "ellipse") {
        value = image.getEllipse(QRectF(v[0], v[1], v[2], v[3]));
    } else if (shape == "line") {
        value = image.getLine(QLineF(v[0], v[1], v[2], v[3]), image.getPixelSpacing()[0], image.getPixelSpacing()[1]);
        unit = "mm";
    } else {
        return app::fail("roi", QString("unknown shape %1 (rect, ellipse or line)").arg(shape));
    }
    printf("mean %g\nmin %d\nmax %d\nsize %g %s\n", value.mean, value.min, value.max, value.size, unit);
    return 0;
}

} // namespace

KESTREL_COMMAND("roi", "measure a rectangle, ellipse or line on a DICOM image", runRoi);
