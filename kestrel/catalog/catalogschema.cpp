#include "catalog/catalogschema_p.h"

#include <QHash>

namespace kestrel::internal::schema {

namespace {

struct TableColumns {
    QString table;
    const char* columns;
};

// Insert order of every table; the schema scripts under database/ create `pk` first, then these.
const TableColumns kTables[] = {
        {QStringLiteral("patient"),
         "PatientName PatientID PatientBirthDate PatientSex ReferencedPatientPhotoSequence "
         "QualityControlSubject ReferencedPatientSequence PatientBirthTime OtherPatientIDs OtherPatientIDsSequence "
         "TypeOfPatientID OtherPatientNames EthnicGroup PatientComments PatientSpeciesDescription "
         "PatientSpeciesCodeSequence PatientBreedDescription PatientBreedCodeSequence BreedRegistrationSequence BreedRegistrationNumber "
         "BreedRegistryCodeSequence ResponsiblePerson ResponsiblePersonRole ResponsibleOrganization PatientIdentityRemoved "
         "DeidentificationMethod DeidentificationMethodCodeSequence Status IssuerOfPatientID PatientKey"},
        {QStringLiteral("generalstudy"),
         "StudyInstanceUID StudyDate StudyTime ReferringPhysicianName ReferringPhysicianIdentificationSequence "
         "StudyID AccessionNumber IssuerOfAccessionNumberSequence StudyDescription PhysiciansOfRecord "
         "PhysiciansOfRecordIdentificationSequence NameOfPhysiciansReadingStudy PhysiciansReadingStudyIdentificationSequence RequestingServiceCodeSequence ReferencedStudySequence "
         "ProcedureCodeSequence ReasonForPerformedProcedureCodeSequence patient_fk InstitutionName Manufacturer "
         "ManufacturerModelName Status"},
        {QStringLiteral("generalseries"),
         "Modality SeriesInstanceUID SeriesNumber Laterality SeriesDate "
         "SeriesTime PerformingPhysicianName PerformingPhysicianIdentificationSequence ProtocolName SeriesDescription "
         "SeriesDescriptionCodeSequence OperatorsName OperatorIdentificationSequence ReferencedPerformedProcedureStepSequence RelatedSeriesSequence "
         "StudyInstanceUID PurposeOfReferenceCodeSequence BodyPartExamined PatientPosition SmallestPixelValueInSeries "
         "LargestPixelValueInSeries RequestAttributesSequence AnatomicalOrientationType study_fk SeriesBase "
         "Status"},
        {QStringLiteral("imageformat"),
         "InstanceNumber PatientOrientation ContentDate ContentTime ImageType "
         "AcquisitionNumber AcquisitionDate AcquisitionTime AcquisitionDateTime ReferencedImageSequence "
         "PurposeOfReferenceCodeSequence DerivationDescription DerivationCodeSequence SourceImageSequence SpatialLocationsPreserved "
         "ReferencedInstanceSequence ImagesInAcquisition ImageComments QualityControlImage BurnedInAnnotation "
         "RecognizableVisualFeatures LossyImageCompression LossyImageCompressionRatio LossyImageCompressionMethod IconImageSequence "
         "PresentationLUTShape IrradiationEventUID RealWorldValueMappingSequence series_fk SOPInstanceUID "
         "FilePath"},
        {QStringLiteral("imagepixel"),
         "PixelDataProviderURL PixelPaddingRangeLimit SamplesPerPixel PhotometricInterpretation Rows "
         "Columns BitsAllocated BitsStored HighBit PixelRepresentation "
         "PixelData PlanarConfiguration PixelAspectRatio SmallestImagePixelValue LargestImagePixelValue "
         "RedPaletteColorLookupTableDescriptor GreenPaletteColorLookupTableDescriptor BluePaletteColorLookupTableDescriptor RedPaletteColorLookupTableData GreenPaletteColorLookupTableData "
         "BluePaletteColorLookupTableData ICCProfile PixelSpacing ImageOrientationPatient ImagePositionPatient "
         "SliceThickness SliceLocation series_fk SOPInstanceUID SpacingX "
         "SpacingY OrientationXX OrientationXY OrientationXZ OrientationYX "
         "OrientationYY OrientationYZ PositionX PositionY PositionZ"},
        {QStringLiteral("mrimageinfo"),
         "ScanningSequence SequenceVariant ScanOptions MRAcquisitionType RepetitionTime "
         "EchoTime EchoTrainLength InversionTime TriggerTime SequenceName "
         "AngioFlag NumberofAverages ImagingFrequency ImagedNucleus EchoNumbers "
         "MagneticFieldStrength SpacingBetweenSlices NumberofPhaseEncodingSteps PercentSampling PercentPhaseFieldofView "
         "PixelBandwidth NominalInterval BeatRejectionFlag LowRRValue HighRRValue "
         "IntervalsAcquired IntervalsRejected PVCRejection SkipBeats HeartRate "
         "CardiacNumberofImages TriggerWindow ReconstructionDiameter ReceiveCoilName TransmitCoilName "
         "AcquisitionMatrix InplanePhaseEncodingDirection FlipAngle SAR VariableFlipAngleFlag "
         "dBdt TemporalPositionIdentifier NumberofTemporalPositions TemporalResolution IsocenterPosition "
         "series_fk SOPInstanceUID"},
        {QStringLiteral("anonymouspatient"),
         "PatientName PatientID AnonymousPatientID DateShift"},
        {QStringLiteral("anonymousstudy"),
         "StudyInstanceUID AnonymousStudyInstanceUID patient_fk"},
        {QStringLiteral("anonymousseries"),
         "SeriesInstanceUID AnonymousSeriesInstanceUID study_fk"},
        {QStringLiteral("anonymousimage"),
         "SOPInstanceUID AnonymousSOPInstanceUID series_fk AccessionNumber PatientBirthTime "
         "PatientName TypeOfPatientID PatientBirthDate OtherPatientIDs OtherPatientNames "
         "OtherPatientIDsSequence EthnicGroup PatientSpeciesCodeSequence PatientBreedCodeSequence BreedRegistrationSequence "
         "BreedRegistrationNumber BreedRegistryCodeSequence ResponsiblePerson ResponsiblePersonRole ResponsibleOrganization "
         "StudyID ReferringPhysicianName ReferringPhysicianIdentificationSequence PhysiciansOfRecord PhysiciansOfRecordIdentificationSequence "
         "PerformingPhysicianIdentificationSequence PerformingPhysicianName NameOfPhysiciansReadingStudy PhysiciansReadingStudyIdentificationSequence OperatorsName "
         "OperatorIdentificationSequence InstitutionName OriginalElements AddedElements SourceDigest"},
        {QStringLiteral("anonymousuid"),
         "UID AnonymousUID"},
        {QStringLiteral("series"),
         "seriesUID recvnum upDBnum upCloudnum"},
        {QStringLiteral("images"),
         "seriesUID InstanceUID DBflag Cloudflag filepath"},
        {QStringLiteral("registration"),
         "SeriesInstanceUID ServerAddress Savepath VolumeHead SeriesBase VoxelChecksum"},
};

const QHash<QString, QStringList>& columnMap()
{
    static const QHash<QString, QStringList> map = [] {
        QHash<QString, QStringList> m;
        for (const TableColumns& t : kTables)
            m.insert(t.table, QString::fromLatin1(t.columns).split(' ', Qt::SkipEmptyParts));
        return m;
    }();
    return map;
}

} // namespace

QStringList tables()
{
    QStringList names;
    for (const TableColumns& t : kTables)
        names << t.table;
    return names;
}

const QStringList& displayTables()
{
    static const QStringList names{QStringLiteral("querypatientuser"), QStringLiteral("querygeneralstudyuser"),
                                   QStringLiteral("querygeneralseriesuser"), QStringLiteral("queryimageformatuser")};
    return names;
}

const QStringList& columns(const QString& table)
{
    static const QStringList none;
    const auto it = columnMap().constFind(table.toLower());
    return it == columnMap().constEnd() ? none : *it;
}

QString placeholders(int n)
{
    QString text = QStringLiteral("(");
    for (int i = 0; i < n; ++i)
        text += i ? QStringLiteral(",?") : QStringLiteral("?");
    return text + ')';
}

QString quotedColumns(const QStringList& names)
{
    QStringList quoted;
    quoted.reserve(names.size());
    for (const QString& name : names)
        quoted << '`' + name + '`';
    return quoted.join(',');
}

QString insertHead(const QString& table)
{
    return QStringLiteral("INSERT INTO %1 (%2) VALUES ").arg(table.toLower(), quotedColumns(columns(table)));
}

QString insertStatement(const QString& table)
{
    return insertHead(table) + placeholders(columns(table).size());
}

} // namespace kestrel::internal::schema
