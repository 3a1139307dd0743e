#pragma once

// Codestreams and encapsulated files the shared data lacks, made with OpenJPEG and OpenJPH.

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctagkey.h>
#include <dcmtk/dcmdata/dcxfer.h>

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QVector>

// A classic JPEG 2000 codestream of COMPONENTS 16-bit unsigned planes (SAMPLES pixel by pixel,
// components side by side), reversible or not (then about 4 bits a sample).
QByteArray encodeOpenJpeg(const QVector<quint16>& samples, int width, int height, int components, bool irreversible);

// A high-throughput codestream of one 16-bit unsigned plane.
QByteArray encodeOpenJph(const QVector<quint16>& samples, int width, int height, bool reversible);

// Pixel data made of FRAMES codestreams, each cut into PIECES fragments, with or without an
// offset table, written with the transfer syntax UID TSUID (read as XFER; empty: XFER's own), and
// the attributes CHANGES set.
struct Encapsulated {
    QList<QByteArray> frames;
    int pieces = 1;
    bool offsetTable = false;
    E_TransferSyntax xfer = EXS_JPEG2000LosslessOnly;
    QString tsUid;
    QMap<DcmTagKey, QString> changes;
};

// A copy of the uncompressed TEMPLATEFILE with that pixel data, as TARGET.
bool writeEncapsulated(const QString& templateFile, const QString& target, const Encapsulated& layout);
