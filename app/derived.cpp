#include "derived.h"

#include "ndicomimage.h"
#include "qinstance.h"
#include "qseries.h"
#include "volumehead.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcuid.h>

namespace app {

DerivedSeries derivedSeries(QSeries& series, const QString& prefix)
{
    char uid[100];
    dcmGenerateUniqueIdentifier(uid, SITE_SERIES_UID_ROOT);
    DerivedSeries derived;
    derived.uid = QString::fromLatin1(uid);
    derived.templateFile = series.getInstances().isEmpty() ? QString() : series.getInstances().first()->getFilePath();
    derived.number = 1000 + series.getSeriesNumber();
    derived.description = QString("%1 %2").arg(prefix, series.getSeriesDescription()).trimmed().left(64);
    return derived;
}

bool writeDerivedImage(NDicomImage& image, const VolumeHead& head, const DerivedSeries& series, int number,
                       const QString& file)
{
    image.setInstanceNumber(number);
    image.setSeriesNumber(series.number);
    image.setSeriesDescription(series.description);
    image.setWindowWidth(head.WindowWidth);
    image.setWindowCenter(head.WindowCenter);
    return image.saveAs(file, series.templateFile, series.uid);
}

} // namespace app
