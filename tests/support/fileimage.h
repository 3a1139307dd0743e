#pragma once

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctagkey.h>

#include <QString>
#include <QVector>

#include <array>

using Point = std::array<double, 3>;

// One file as the DICOM rules read it: pixel (column c, row r) lies at IPP + c * PS[1] * row +
// r * PS[0] * column and holds stored * slope + intercept, the stored value taken from Bits
// Stored below High Bit and signed when Pixel Representation is 1.
struct FileImage {
    Point position{}, row{}, column{};
    double betweenRows = 0, betweenColumns = 0;
    int rows = 0, columns = 0;
    QVector<double> real;

    Point at(int c, int r) const
    {
        Point p;
        for (int a = 0; a < 3; ++a)
            p[a] = position[a] + c * betweenColumns * row[a] + r * betweenRows * column[a];
        return p;
    }
};

bool readFileImage(const QString& path, FileImage& out);

// The whole value of TAG in FILE as the file has it (Latin-1), "<unreadable>" when FILE does not
// read.
QString fileText(const QString& file, const DcmTagKey& tag);
