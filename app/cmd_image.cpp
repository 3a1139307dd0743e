#include "command.h"
#include "picture.h"

#include "ndicomimage.h"

#include <QCommandLineParser>
#include <QImage>

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

int runImage(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Windows a DICOM image to grey levels and writes it as PNG.");
    parser.addHelpOption();
    parser.addPositionalArgument("FILE", "DICOM image file");
    parser.addOption({"png", "PNG file to write", "OUT.png"});
    parser.addOption({"window", "window WIDTH and CENTRE (two values; default: the file's window)", "WIDTH CENTRE"});
    QStringList all = args;
    // "--window W C" takes two values: join them so that the parser sees one.
    for (int i = 0; i + 2 < all.size(); ++i)
        if (all[i] == "--window") {
            all[i + 1] = all[i + 1] + ' ' + all[i + 2];
            all.removeAt(i + 2);
        }
    if (const auto status = app::parseArguments(parser, "image", all))
        return *status;
    const QStringList positional = parser.positionalArguments();
    if (positional.size() != 1)
        return app::fail("image", "expected one DICOM file");
    if (!parser.isSet("png"))
        return app::fail("image", "--png OUT.png is required");

    NDicomImage image;
    if (!image.readReferenceFileInfo(positional.first(), true))
        return app::fail("image", hostkit::whyNoGreyImage(positional.first()));
    double width = image.getWindowWidth();
    double centre = image.getWindowCenter();
    if (parser.isSet("window")) {
        const QStringList values = parser.value("window").split(' ', Qt::SkipEmptyParts);
        bool okWidth = false, okCentre = false;
        if (values.size() == 2) {
            width = values[0].toDouble(&okWidth);
            centre = values[1].toDouble(&okCentre);
        }
        if (!okWidth || !okCentre)
            return app::fail("image", "--window needs two numbers: WIDTH CENTRE");
    }
    const QImage out = hostkit::physicalImage(image, width, centre);
    if (out.isNull())
        return app::fail("image", "the image is empty");
    if (!out.save(parser.value("png"), "PNG"))
        return app::fail("image", QString("cannot write %1").arg(parser.value("png")));
    printf("%s: %dx%d, window %g/%g\n", qPrintable(parser.value("png")), image.width(), image.height(), width,
           centre);
    return 0;
}

} // namespace

KESTREL_COMMAND("image", "window a DICOM image and write it as PNG", runImage);
