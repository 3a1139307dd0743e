-- Catalogue schema for MySQL/MariaDB. Run as one multi-statement text after CREATE DATABASE and USE.
-- Table names are lower case: servers on Linux compare them case-sensitively.
-- Identifying columns compare byte for byte (utf8mb4_bin); their unique keys cover the first 255
-- characters, far beyond any valid UID.

CREATE TABLE IF NOT EXISTS `patient` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `PatientName` LONGTEXT,
  `PatientID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `PatientBirthDate` LONGTEXT,
  `PatientSex` LONGTEXT,
  `ReferencedPatientPhotoSequence` LONGTEXT,
  `QualityControlSubject` LONGTEXT,
  `ReferencedPatientSequence` LONGTEXT,
  `PatientBirthTime` LONGTEXT,
  `OtherPatientIDs` LONGTEXT,
  `OtherPatientIDsSequence` LONGTEXT,
  `TypeOfPatientID` LONGTEXT,
  `OtherPatientNames` LONGTEXT,
  `EthnicGroup` LONGTEXT,
  `PatientComments` LONGTEXT,
  `PatientSpeciesDescription` LONGTEXT,
  `PatientSpeciesCodeSequence` LONGTEXT,
  `PatientBreedDescription` LONGTEXT,
  `PatientBreedCodeSequence` LONGTEXT,
  `BreedRegistrationSequence` LONGTEXT,
  `BreedRegistrationNumber` LONGTEXT,
  `BreedRegistryCodeSequence` LONGTEXT,
  `ResponsiblePerson` LONGTEXT,
  `ResponsiblePersonRole` LONGTEXT,
  `ResponsibleOrganization` LONGTEXT,
  `PatientIdentityRemoved` LONGTEXT,
  `DeidentificationMethod` LONGTEXT,
  `DeidentificationMethodCodeSequence` LONGTEXT,
  `Status` LONGTEXT,
  `IssuerOfPatientID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `PatientKey` VARCHAR(64) CHARACTER SET ascii COLLATE ascii_bin
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE UNIQUE INDEX `uq_patient_PatientKey` ON `patient` (`PatientKey`);
CREATE INDEX `idx_patient_PatientName` ON `patient` (`PatientName`(64));
CREATE INDEX `idx_patient_PatientID` ON `patient` (`PatientID`(64));

CREATE TABLE IF NOT EXISTS `generalstudy` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `StudyInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `StudyDate` LONGTEXT,
  `StudyTime` LONGTEXT,
  `ReferringPhysicianName` LONGTEXT,
  `ReferringPhysicianIdentificationSequence` LONGTEXT,
  `StudyID` LONGTEXT,
  `AccessionNumber` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `IssuerOfAccessionNumberSequence` LONGTEXT,
  `StudyDescription` LONGTEXT,
  `PhysiciansOfRecord` LONGTEXT,
  `PhysiciansOfRecordIdentificationSequence` LONGTEXT,
  `NameOfPhysiciansReadingStudy` LONGTEXT,
  `PhysiciansReadingStudyIdentificationSequence` LONGTEXT,
  `RequestingServiceCodeSequence` LONGTEXT,
  `ReferencedStudySequence` LONGTEXT,
  `ProcedureCodeSequence` LONGTEXT,
  `ReasonForPerformedProcedureCodeSequence` LONGTEXT,
  `patient_fk` BIGINT,
  `InstitutionName` LONGTEXT,
  `Manufacturer` LONGTEXT,
  `ManufacturerModelName` LONGTEXT,
  `Status` LONGTEXT
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE UNIQUE INDEX `uq_generalstudy_StudyInstanceUID` ON `generalstudy` (`StudyInstanceUID`(255));
CREATE INDEX `idx_generalstudy_patient_fk` ON `generalstudy` (`patient_fk`);
CREATE INDEX `idx_generalstudy_StudyDate` ON `generalstudy` (`StudyDate`(64));

CREATE TABLE IF NOT EXISTS `generalseries` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `Modality` LONGTEXT,
  `SeriesInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `SeriesNumber` LONGTEXT,
  `Laterality` LONGTEXT,
  `SeriesDate` LONGTEXT,
  `SeriesTime` LONGTEXT,
  `PerformingPhysicianName` LONGTEXT,
  `PerformingPhysicianIdentificationSequence` LONGTEXT,
  `ProtocolName` LONGTEXT,
  `SeriesDescription` LONGTEXT,
  `SeriesDescriptionCodeSequence` LONGTEXT,
  `OperatorsName` LONGTEXT,
  `OperatorIdentificationSequence` LONGTEXT,
  `ReferencedPerformedProcedureStepSequence` LONGTEXT,
  `RelatedSeriesSequence` LONGTEXT,
  `StudyInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `PurposeOfReferenceCodeSequence` LONGTEXT,
  `BodyPartExamined` LONGTEXT,
  `PatientPosition` LONGTEXT,
  `SmallestPixelValueInSeries` LONGTEXT,
  `LargestPixelValueInSeries` LONGTEXT,
  `RequestAttributesSequence` LONGTEXT,
  `AnatomicalOrientationType` LONGTEXT,
  `study_fk` BIGINT,
  `SeriesBase` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `Status` LONGTEXT
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE INDEX `idx_generalseries_SeriesInstanceUID` ON `generalseries` (`SeriesInstanceUID`(64));
CREATE INDEX `idx_generalseries_StudyInstanceUID` ON `generalseries` (`StudyInstanceUID`(64));
CREATE INDEX `idx_generalseries_study_fk` ON `generalseries` (`study_fk`);
CREATE INDEX `idx_generalseries_SeriesDescription` ON `generalseries` (`SeriesDescription`(64));
CREATE INDEX `idx_generalseries_Modality` ON `generalseries` (`Modality`(64));
CREATE UNIQUE INDEX `uq_generalseries_SeriesBase` ON `generalseries` (`SeriesBase`(255));

CREATE TABLE IF NOT EXISTS `imageformat` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `InstanceNumber` BIGINT,
  `PatientOrientation` LONGTEXT,
  `ContentDate` LONGTEXT,
  `ContentTime` LONGTEXT,
  `ImageType` LONGTEXT,
  `AcquisitionNumber` LONGTEXT,
  `AcquisitionDate` LONGTEXT,
  `AcquisitionTime` LONGTEXT,
  `AcquisitionDateTime` LONGTEXT,
  `ReferencedImageSequence` LONGTEXT,
  `PurposeOfReferenceCodeSequence` LONGTEXT,
  `DerivationDescription` LONGTEXT,
  `DerivationCodeSequence` LONGTEXT,
  `SourceImageSequence` LONGTEXT,
  `SpatialLocationsPreserved` LONGTEXT,
  `ReferencedInstanceSequence` LONGTEXT,
  `ImagesInAcquisition` LONGTEXT,
  `ImageComments` LONGTEXT,
  `QualityControlImage` LONGTEXT,
  `BurnedInAnnotation` LONGTEXT,
  `RecognizableVisualFeatures` LONGTEXT,
  `LossyImageCompression` LONGTEXT,
  `LossyImageCompressionRatio` LONGTEXT,
  `LossyImageCompressionMethod` LONGTEXT,
  `IconImageSequence` LONGTEXT,
  `PresentationLUTShape` LONGTEXT,
  `IrradiationEventUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `RealWorldValueMappingSequence` LONGTEXT,
  `series_fk` BIGINT,
  `SOPInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `FilePath` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE INDEX `idx_imageformat_series_fk` ON `imageformat` (`series_fk`);
CREATE UNIQUE INDEX `uq_imageformat_SOPInstanceUID` ON `imageformat` (`SOPInstanceUID`(255));

CREATE TABLE IF NOT EXISTS `imagepixel` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `PixelDataProviderURL` LONGTEXT,
  `PixelPaddingRangeLimit` LONGTEXT,
  `SamplesPerPixel` LONGTEXT,
  `PhotometricInterpretation` LONGTEXT,
  `Rows` LONGTEXT,
  `Columns` LONGTEXT,
  `BitsAllocated` LONGTEXT,
  `BitsStored` LONGTEXT,
  `HighBit` LONGTEXT,
  `PixelRepresentation` LONGTEXT,
  `PixelData` LONGTEXT,
  `PlanarConfiguration` LONGTEXT,
  `PixelAspectRatio` LONGTEXT,
  `SmallestImagePixelValue` LONGTEXT,
  `LargestImagePixelValue` LONGTEXT,
  `RedPaletteColorLookupTableDescriptor` LONGTEXT,
  `GreenPaletteColorLookupTableDescriptor` LONGTEXT,
  `BluePaletteColorLookupTableDescriptor` LONGTEXT,
  `RedPaletteColorLookupTableData` LONGTEXT,
  `GreenPaletteColorLookupTableData` LONGTEXT,
  `BluePaletteColorLookupTableData` LONGTEXT,
  `ICCProfile` LONGTEXT,
  `PixelSpacing` LONGTEXT,
  `ImageOrientationPatient` LONGTEXT,
  `ImagePositionPatient` LONGTEXT,
  `SliceThickness` LONGTEXT,
  `SliceLocation` LONGTEXT,
  `series_fk` BIGINT,
  `SOPInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `SpacingX` DOUBLE,
  `SpacingY` DOUBLE,
  `OrientationXX` DOUBLE,
  `OrientationXY` DOUBLE,
  `OrientationXZ` DOUBLE,
  `OrientationYX` DOUBLE,
  `OrientationYY` DOUBLE,
  `OrientationYZ` DOUBLE,
  `PositionX` DOUBLE,
  `PositionY` DOUBLE,
  `PositionZ` DOUBLE
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE INDEX `idx_imagepixel_series_fk` ON `imagepixel` (`series_fk`);
CREATE UNIQUE INDEX `uq_imagepixel_SOPInstanceUID` ON `imagepixel` (`SOPInstanceUID`(255));

CREATE TABLE IF NOT EXISTS `mrimageinfo` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `ScanningSequence` LONGTEXT,
  `SequenceVariant` LONGTEXT,
  `ScanOptions` LONGTEXT,
  `MRAcquisitionType` LONGTEXT,
  `RepetitionTime` LONGTEXT,
  `EchoTime` LONGTEXT,
  `EchoTrainLength` LONGTEXT,
  `InversionTime` LONGTEXT,
  `TriggerTime` LONGTEXT,
  `SequenceName` LONGTEXT,
  `AngioFlag` LONGTEXT,
  `NumberofAverages` LONGTEXT,
  `ImagingFrequency` LONGTEXT,
  `ImagedNucleus` LONGTEXT,
  `EchoNumbers` LONGTEXT,
  `MagneticFieldStrength` LONGTEXT,
  `SpacingBetweenSlices` LONGTEXT,
  `NumberofPhaseEncodingSteps` LONGTEXT,
  `PercentSampling` LONGTEXT,
  `PercentPhaseFieldofView` LONGTEXT,
  `PixelBandwidth` LONGTEXT,
  `NominalInterval` LONGTEXT,
  `BeatRejectionFlag` LONGTEXT,
  `LowRRValue` LONGTEXT,
  `HighRRValue` LONGTEXT,
  `IntervalsAcquired` LONGTEXT,
  `IntervalsRejected` LONGTEXT,
  `PVCRejection` LONGTEXT,
  `SkipBeats` LONGTEXT,
  `HeartRate` LONGTEXT,
  `CardiacNumberofImages` LONGTEXT,
  `TriggerWindow` LONGTEXT,
  `ReconstructionDiameter` LONGTEXT,
  `ReceiveCoilName` LONGTEXT,
  `TransmitCoilName` LONGTEXT,
  `AcquisitionMatrix` LONGTEXT,
  `InplanePhaseEncodingDirection` LONGTEXT,
  `FlipAngle` LONGTEXT,
  `SAR` LONGTEXT,
  `VariableFlipAngleFlag` LONGTEXT,
  `dBdt` LONGTEXT,
  `TemporalPositionIdentifier` LONGTEXT,
  `NumberofTemporalPositions` LONGTEXT,
  `TemporalResolution` LONGTEXT,
  `IsocenterPosition` LONGTEXT,
  `series_fk` BIGINT,
  `SOPInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE INDEX `idx_mrimageinfo_series_fk` ON `mrimageinfo` (`series_fk`);
CREATE UNIQUE INDEX `uq_mrimageinfo_SOPInstanceUID` ON `mrimageinfo` (`SOPInstanceUID`(255));

CREATE TABLE IF NOT EXISTS `anonymouspatient` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `PatientName` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `PatientID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `AnonymousPatientID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `DateShift` LONGTEXT
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE INDEX `idx_anonymouspatient_PatientName` ON `anonymouspatient` (`PatientName`(64));
CREATE INDEX `idx_anonymouspatient_PatientID` ON `anonymouspatient` (`PatientID`(64));
CREATE UNIQUE INDEX `uq_anonymouspatient_AnonymousPatientID` ON `anonymouspatient` (`AnonymousPatientID`(255));

CREATE TABLE IF NOT EXISTS `anonymousstudy` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `StudyInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `AnonymousStudyInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `patient_fk` BIGINT
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE UNIQUE INDEX `uq_anonymousstudy_AnonymousStudyInstanceUID` ON `anonymousstudy` (`AnonymousStudyInstanceUID`(255));
CREATE UNIQUE INDEX `uq_anonymousstudy_StudyInstanceUID` ON `anonymousstudy` (`StudyInstanceUID`(255));
CREATE INDEX `idx_anonymousstudy_patient_fk` ON `anonymousstudy` (`patient_fk`);

CREATE TABLE IF NOT EXISTS `anonymousseries` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `SeriesInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `AnonymousSeriesInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `study_fk` BIGINT
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE UNIQUE INDEX `uq_anonymousseries_AnonymousSeriesInstanceUID` ON `anonymousseries` (`AnonymousSeriesInstanceUID`(255));
CREATE UNIQUE INDEX `uq_anonymousseries_SeriesInstanceUID` ON `anonymousseries` (`SeriesInstanceUID`(255));
CREATE INDEX `idx_anonymousseries_study_fk` ON `anonymousseries` (`study_fk`);

CREATE TABLE IF NOT EXISTS `anonymousimage` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `SOPInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `AnonymousSOPInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `series_fk` BIGINT,
  `AccessionNumber` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `PatientBirthTime` LONGTEXT,
  `PatientName` LONGTEXT,
  `TypeOfPatientID` LONGTEXT,
  `PatientBirthDate` LONGTEXT,
  `OtherPatientIDs` LONGTEXT,
  `OtherPatientNames` LONGTEXT,
  `OtherPatientIDsSequence` LONGTEXT,
  `EthnicGroup` LONGTEXT,
  `PatientSpeciesCodeSequence` LONGTEXT,
  `PatientBreedCodeSequence` LONGTEXT,
  `BreedRegistrationSequence` LONGTEXT,
  `BreedRegistrationNumber` LONGTEXT,
  `BreedRegistryCodeSequence` LONGTEXT,
  `ResponsiblePerson` LONGTEXT,
  `ResponsiblePersonRole` LONGTEXT,
  `ResponsibleOrganization` LONGTEXT,
  `StudyID` LONGTEXT,
  `ReferringPhysicianName` LONGTEXT,
  `ReferringPhysicianIdentificationSequence` LONGTEXT,
  `PhysiciansOfRecord` LONGTEXT,
  `PhysiciansOfRecordIdentificationSequence` LONGTEXT,
  `PerformingPhysicianIdentificationSequence` LONGTEXT,
  `PerformingPhysicianName` LONGTEXT,
  `NameOfPhysiciansReadingStudy` LONGTEXT,
  `PhysiciansReadingStudyIdentificationSequence` LONGTEXT,
  `OperatorsName` LONGTEXT,
  `OperatorIdentificationSequence` LONGTEXT,
  `InstitutionName` LONGTEXT,
  `OriginalElements` LONGTEXT,
  `AddedElements` LONGTEXT,
  `SourceDigest` LONGTEXT
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE UNIQUE INDEX `uq_anonymousimage_SOPInstanceUID` ON `anonymousimage` (`SOPInstanceUID`(255));
CREATE UNIQUE INDEX `uq_anonymousimage_AnonymousSOPInstanceUID` ON `anonymousimage` (`AnonymousSOPInstanceUID`(255));
CREATE INDEX `idx_anonymousimage_series_fk` ON `anonymousimage` (`series_fk`);
CREATE INDEX `idx_anonymousimage_PatientName` ON `anonymousimage` (`PatientName`(64));

CREATE TABLE IF NOT EXISTS `anonymousuid` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `UID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `AnonymousUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE UNIQUE INDEX `uq_anonymousuid_UID` ON `anonymousuid` (`UID`(255));
CREATE UNIQUE INDEX `uq_anonymousuid_AnonymousUID` ON `anonymousuid` (`AnonymousUID`(255));

CREATE TABLE IF NOT EXISTS `series` (
  `seriesUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `recvnum` BIGINT,
  `upDBnum` BIGINT,
  `upCloudnum` BIGINT
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE UNIQUE INDEX `uq_series_seriesUID` ON `series` (`seriesUID`(255));

CREATE TABLE IF NOT EXISTS `images` (
  `seriesUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `InstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `DBflag` BIGINT,
  `Cloudflag` BIGINT,
  `filepath` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE INDEX `idx_images_seriesUID` ON `images` (`seriesUID`(64));
CREATE UNIQUE INDEX `uq_images_InstanceUID` ON `images` (`InstanceUID`(255));

CREATE TABLE IF NOT EXISTS `registration` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `SeriesInstanceUID` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `ServerAddress` LONGTEXT,
  `Savepath` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `VolumeHead` LONGTEXT,
  `SeriesBase` LONGTEXT CHARACTER SET utf8mb4 COLLATE utf8mb4_bin,
  `VoxelChecksum` LONGTEXT
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE UNIQUE INDEX `uq_registration_SeriesInstanceUID` ON `registration` (`SeriesInstanceUID`(255));
CREATE INDEX `idx_registration_SeriesBase` ON `registration` (`SeriesBase`(64));

CREATE TABLE IF NOT EXISTS `patientuser` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `UserName` LONGTEXT,
  `Password` LONGTEXT
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS `andvancequiry` (
  `pk` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `InquiryName` LONGTEXT,
  `UserName` LONGTEXT,
  `TableName` LONGTEXT,
  `ColumnName` LONGTEXT,
  `Operator` LONGTEXT,
  `Value` LONGTEXT,
  `Connector` LONGTEXT,
  `MatchKind` LONGTEXT
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
CREATE INDEX `idx_andvancequiry_InquiryName` ON `andvancequiry` (`InquiryName`(64));

CREATE TABLE IF NOT EXISTS `querypatientuser` (
  `pk` INT NOT NULL DEFAULT 1,
  `PatientName` INT NOT NULL DEFAULT 1,
  `PatientID` INT NOT NULL DEFAULT 1,
  `PatientBirthDate` INT NOT NULL DEFAULT 1,
  `PatientSex` INT NOT NULL DEFAULT 1,
  `ReferencedPatientPhotoSequence` INT NOT NULL DEFAULT 1,
  `QualityControlSubject` INT NOT NULL DEFAULT 1,
  `ReferencedPatientSequence` INT NOT NULL DEFAULT 1,
  `PatientBirthTime` INT NOT NULL DEFAULT 1,
  `OtherPatientIDs` INT NOT NULL DEFAULT 1,
  `OtherPatientIDsSequence` INT NOT NULL DEFAULT 1,
  `TypeOfPatientID` INT NOT NULL DEFAULT 1,
  `OtherPatientNames` INT NOT NULL DEFAULT 1,
  `EthnicGroup` INT NOT NULL DEFAULT 1,
  `PatientComments` INT NOT NULL DEFAULT 1,
  `PatientSpeciesDescription` INT NOT NULL DEFAULT 1,
  `PatientSpeciesCodeSequence` INT NOT NULL DEFAULT 1,
  `PatientBreedDescription` INT NOT NULL DEFAULT 1,
  `PatientBreedCodeSequence` INT NOT NULL DEFAULT 1,
  `BreedRegistrationSequence` INT NOT NULL DEFAULT 1,
  `BreedRegistrationNumber` INT NOT NULL DEFAULT 1,
  `BreedRegistryCodeSequence` INT NOT NULL DEFAULT 1,
  `ResponsiblePerson` INT NOT NULL DEFAULT 1,
  `ResponsiblePersonRole` INT NOT NULL DEFAULT 1,
  `ResponsibleOrganization` INT NOT NULL DEFAULT 1,
  `PatientIdentityRemoved` INT NOT NULL DEFAULT 1,
  `DeidentificationMethod` INT NOT NULL DEFAULT 1,
  `DeidentificationMethodCodeSequence` INT NOT NULL DEFAULT 1,
  `Status` INT NOT NULL DEFAULT 1,
  `UserName` VARCHAR(64) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS `querygeneralstudyuser` (
  `pk` INT NOT NULL DEFAULT 1,
  `StudyInstanceUID` INT NOT NULL DEFAULT 1,
  `StudyDate` INT NOT NULL DEFAULT 1,
  `StudyTime` INT NOT NULL DEFAULT 1,
  `ReferringPhysicianName` INT NOT NULL DEFAULT 1,
  `ReferringPhysicianIdentificationSequence` INT NOT NULL DEFAULT 1,
  `StudyID` INT NOT NULL DEFAULT 1,
  `AccessionNumber` INT NOT NULL DEFAULT 1,
  `IssuerOfAccessionNumberSequence` INT NOT NULL DEFAULT 1,
  `StudyDescription` INT NOT NULL DEFAULT 1,
  `PhysiciansOfRecord` INT NOT NULL DEFAULT 1,
  `PhysiciansOfRecordIdentificationSequence` INT NOT NULL DEFAULT 1,
  `NameOfPhysiciansReadingStudy` INT NOT NULL DEFAULT 1,
  `PhysiciansReadingStudyIdentificationSequence` INT NOT NULL DEFAULT 1,
  `RequestingServiceCodeSequence` INT NOT NULL DEFAULT 1,
  `ReferencedStudySequence` INT NOT NULL DEFAULT 1,
  `ProcedureCodeSequence` INT NOT NULL DEFAULT 1,
  `ReasonForPerformedProcedureCodeSequence` INT NOT NULL DEFAULT 1,
  `patient_fk` INT NOT NULL DEFAULT 1,
  `InstitutionName` INT NOT NULL DEFAULT 1,
  `Manufacturer` INT NOT NULL DEFAULT 1,
  `ManufacturerModelName` INT NOT NULL DEFAULT 1,
  `Status` INT NOT NULL DEFAULT 1,
  `UserName` VARCHAR(64) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS `querygeneralseriesuser` (
  `pk` INT NOT NULL DEFAULT 1,
  `Modality` INT NOT NULL DEFAULT 1,
  `SeriesInstanceUID` INT NOT NULL DEFAULT 1,
  `SeriesNumber` INT NOT NULL DEFAULT 1,
  `Laterality` INT NOT NULL DEFAULT 1,
  `SeriesDate` INT NOT NULL DEFAULT 1,
  `SeriesTime` INT NOT NULL DEFAULT 1,
  `PerformingPhysicianName` INT NOT NULL DEFAULT 1,
  `PerformingPhysicianIdentificationSequence` INT NOT NULL DEFAULT 1,
  `ProtocolName` INT NOT NULL DEFAULT 1,
  `SeriesDescription` INT NOT NULL DEFAULT 1,
  `SeriesDescriptionCodeSequence` INT NOT NULL DEFAULT 1,
  `OperatorsName` INT NOT NULL DEFAULT 1,
  `OperatorIdentificationSequence` INT NOT NULL DEFAULT 1,
  `ReferencedPerformedProcedureStepSequence` INT NOT NULL DEFAULT 1,
  `RelatedSeriesSequence` INT NOT NULL DEFAULT 1,
  `StudyInstanceUID` INT NOT NULL DEFAULT 1,
  `PurposeOfReferenceCodeSequence` INT NOT NULL DEFAULT 1,
  `BodyPartExamined` INT NOT NULL DEFAULT 1,
  `PatientPosition` INT NOT NULL DEFAULT 1,
  `SmallestPixelValueInSeries` INT NOT NULL DEFAULT 1,
  `LargestPixelValueInSeries` INT NOT NULL DEFAULT 1,
  `RequestAttributesSequence` INT NOT NULL DEFAULT 1,
  `AnatomicalOrientationType` INT NOT NULL DEFAULT 1,
  `study_fk` INT NOT NULL DEFAULT 1,
  `SeriesBase` INT NOT NULL DEFAULT 1,
  `Status` INT NOT NULL DEFAULT 1,
  `UserName` VARCHAR(64) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS `queryimageformatuser` (
  `pk` INT NOT NULL DEFAULT 1,
  `InstanceNumber` INT NOT NULL DEFAULT 1,
  `PatientOrientation` INT NOT NULL DEFAULT 1,
  `ContentDate` INT NOT NULL DEFAULT 1,
  `ContentTime` INT NOT NULL DEFAULT 1,
  `ImageType` INT NOT NULL DEFAULT 1,
  `AcquisitionNumber` INT NOT NULL DEFAULT 1,
  `AcquisitionDate` INT NOT NULL DEFAULT 1,
  `AcquisitionTime` INT NOT NULL DEFAULT 1,
  `AcquisitionDateTime` INT NOT NULL DEFAULT 1,
  `ReferencedImageSequence` INT NOT NULL DEFAULT 1,
  `PurposeOfReferenceCodeSequence` INT NOT NULL DEFAULT 1,
  `DerivationDescription` INT NOT NULL DEFAULT 1,
  `DerivationCodeSequence` INT NOT NULL DEFAULT 1,
  `SourceImageSequence` INT NOT NULL DEFAULT 1,
  `SpatialLocationsPreserved` INT NOT NULL DEFAULT 1,
  `ReferencedInstanceSequence` INT NOT NULL DEFAULT 1,
  `ImagesInAcquisition` INT NOT NULL DEFAULT 1,
  `ImageComments` INT NOT NULL DEFAULT 1,
  `QualityControlImage` INT NOT NULL DEFAULT 1,
  `BurnedInAnnotation` INT NOT NULL DEFAULT 1,
  `RecognizableVisualFeatures` INT NOT NULL DEFAULT 1,
  `LossyImageCompression` INT NOT NULL DEFAULT 1,
  `LossyImageCompressionRatio` INT NOT NULL DEFAULT 1,
  `LossyImageCompressionMethod` INT NOT NULL DEFAULT 1,
  `IconImageSequence` INT NOT NULL DEFAULT 1,
  `PresentationLUTShape` INT NOT NULL DEFAULT 1,
  `IrradiationEventUID` INT NOT NULL DEFAULT 1,
  `RealWorldValueMappingSequence` INT NOT NULL DEFAULT 1,
  `series_fk` INT NOT NULL DEFAULT 1,
  `SOPInstanceUID` INT NOT NULL DEFAULT 1,
  `FilePath` INT NOT NULL DEFAULT 1,
  `UserName` VARCHAR(64) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

INSERT INTO `querygeneralseriesuser` (`UserName`) VALUES ('default');
INSERT INTO `querygeneralstudyuser` (`UserName`) VALUES ('default');
INSERT INTO `queryimageformatuser` (`UserName`) VALUES ('default');
INSERT INTO `querypatientuser` (`UserName`) VALUES ('default');
INSERT INTO `patientuser` (`UserName`, `Password`) VALUES ('admin', '');
