-- Catalogue schema for SQLite: one statement per piece, pieces end with a semicolon and a hash sign.
CREATE TABLE IF NOT EXISTS patient (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  PatientName TEXT,
  PatientID TEXT,
  PatientBirthDate TEXT,
  PatientSex TEXT,
  ReferencedPatientPhotoSequence TEXT,
  QualityControlSubject TEXT,
  ReferencedPatientSequence TEXT,
  PatientBirthTime TEXT,
  OtherPatientIDs TEXT,
  OtherPatientIDsSequence TEXT,
  TypeOfPatientID TEXT,
  OtherPatientNames TEXT,
  EthnicGroup TEXT,
  PatientComments TEXT,
  PatientSpeciesDescription TEXT,
  PatientSpeciesCodeSequence TEXT,
  PatientBreedDescription TEXT,
  PatientBreedCodeSequence TEXT,
  BreedRegistrationSequence TEXT,
  BreedRegistrationNumber TEXT,
  BreedRegistryCodeSequence TEXT,
  ResponsiblePerson TEXT,
  ResponsiblePersonRole TEXT,
  ResponsibleOrganization TEXT,
  PatientIdentityRemoved TEXT,
  DeidentificationMethod TEXT,
  DeidentificationMethodCodeSequence TEXT,
  Status TEXT,
  IssuerOfPatientID TEXT,
  PatientKey TEXT
);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_patient_PatientKey ON patient (PatientKey);#
CREATE INDEX IF NOT EXISTS idx_patient_PatientName ON patient (PatientName);#
CREATE INDEX IF NOT EXISTS idx_patient_PatientID ON patient (PatientID);#
CREATE TABLE IF NOT EXISTS generalstudy (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  StudyInstanceUID TEXT,
  StudyDate TEXT,
  StudyTime TEXT,
  ReferringPhysicianName TEXT,
  ReferringPhysicianIdentificationSequence TEXT,
  StudyID TEXT,
  AccessionNumber TEXT,
  IssuerOfAccessionNumberSequence TEXT,
  StudyDescription TEXT,
  PhysiciansOfRecord TEXT,
  PhysiciansOfRecordIdentificationSequence TEXT,
  NameOfPhysiciansReadingStudy TEXT,
  PhysiciansReadingStudyIdentificationSequence TEXT,
  RequestingServiceCodeSequence TEXT,
  ReferencedStudySequence TEXT,
  ProcedureCodeSequence TEXT,
  ReasonForPerformedProcedureCodeSequence TEXT,
  patient_fk INTEGER,
  InstitutionName TEXT,
  Manufacturer TEXT,
  ManufacturerModelName TEXT,
  Status TEXT
);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_generalstudy_StudyInstanceUID ON generalstudy (StudyInstanceUID);#
CREATE INDEX IF NOT EXISTS idx_generalstudy_patient_fk ON generalstudy (patient_fk);#
CREATE INDEX IF NOT EXISTS idx_generalstudy_StudyDate ON generalstudy (StudyDate);#
CREATE TABLE IF NOT EXISTS generalseries (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  Modality TEXT,
  SeriesInstanceUID TEXT,
  SeriesNumber TEXT,
  Laterality TEXT,
  SeriesDate TEXT,
  SeriesTime TEXT,
  PerformingPhysicianName TEXT,
  PerformingPhysicianIdentificationSequence TEXT,
  ProtocolName TEXT,
  SeriesDescription TEXT,
  SeriesDescriptionCodeSequence TEXT,
  OperatorsName TEXT,
  OperatorIdentificationSequence TEXT,
  ReferencedPerformedProcedureStepSequence TEXT,
  RelatedSeriesSequence TEXT,
  StudyInstanceUID TEXT,
  PurposeOfReferenceCodeSequence TEXT,
  BodyPartExamined TEXT,
  PatientPosition TEXT,
  SmallestPixelValueInSeries TEXT,
  LargestPixelValueInSeries TEXT,
  RequestAttributesSequence TEXT,
  AnatomicalOrientationType TEXT,
  study_fk INTEGER,
  SeriesBase TEXT,
  Status TEXT
);#
CREATE INDEX IF NOT EXISTS idx_generalseries_SeriesInstanceUID ON generalseries (SeriesInstanceUID);#
CREATE INDEX IF NOT EXISTS idx_generalseries_StudyInstanceUID ON generalseries (StudyInstanceUID);#
CREATE INDEX IF NOT EXISTS idx_generalseries_study_fk ON generalseries (study_fk);#
CREATE INDEX IF NOT EXISTS idx_generalseries_SeriesDescription ON generalseries (SeriesDescription);#
CREATE INDEX IF NOT EXISTS idx_generalseries_Modality ON generalseries (Modality);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_generalseries_SeriesBase ON generalseries (SeriesBase);#
CREATE TABLE IF NOT EXISTS imageformat (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  InstanceNumber INTEGER,
  PatientOrientation TEXT,
  ContentDate TEXT,
  ContentTime TEXT,
  ImageType TEXT,
  AcquisitionNumber TEXT,
  AcquisitionDate TEXT,
  AcquisitionTime TEXT,
  AcquisitionDateTime TEXT,
  ReferencedImageSequence TEXT,
  PurposeOfReferenceCodeSequence TEXT,
  DerivationDescription TEXT,
  DerivationCodeSequence TEXT,
  SourceImageSequence TEXT,
  SpatialLocationsPreserved TEXT,
  ReferencedInstanceSequence TEXT,
  ImagesInAcquisition TEXT,
  ImageComments TEXT,
  QualityControlImage TEXT,
  BurnedInAnnotation TEXT,
  RecognizableVisualFeatures TEXT,
  LossyImageCompression TEXT,
  LossyImageCompressionRatio TEXT,
  LossyImageCompressionMethod TEXT,
  IconImageSequence TEXT,
  PresentationLUTShape TEXT,
  IrradiationEventUID TEXT,
  RealWorldValueMappingSequence TEXT,
  series_fk INTEGER,
  SOPInstanceUID TEXT,
  FilePath TEXT
);#
CREATE INDEX IF NOT EXISTS idx_imageformat_series_fk ON imageformat (series_fk);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_imageformat_SOPInstanceUID ON imageformat (SOPInstanceUID);#
CREATE TABLE IF NOT EXISTS imagepixel (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  PixelDataProviderURL TEXT,
  PixelPaddingRangeLimit TEXT,
  SamplesPerPixel TEXT,
  PhotometricInterpretation TEXT,
  Rows TEXT,
  Columns TEXT,
  BitsAllocated TEXT,
  BitsStored TEXT,
  HighBit TEXT,
  PixelRepresentation TEXT,
  PixelData TEXT,
  PlanarConfiguration TEXT,
  PixelAspectRatio TEXT,
  SmallestImagePixelValue TEXT,
  LargestImagePixelValue TEXT,
  RedPaletteColorLookupTableDescriptor TEXT,
  GreenPaletteColorLookupTableDescriptor TEXT,
  BluePaletteColorLookupTableDescriptor TEXT,
  RedPaletteColorLookupTableData TEXT,
  GreenPaletteColorLookupTableData TEXT,
  BluePaletteColorLookupTableData TEXT,
  ICCProfile TEXT,
  PixelSpacing TEXT,
  ImageOrientationPatient TEXT,
  ImagePositionPatient TEXT,
  SliceThickness TEXT,
  SliceLocation TEXT,
  series_fk INTEGER,
  SOPInstanceUID TEXT,
  SpacingX REAL,
  SpacingY REAL,
  OrientationXX REAL,
  OrientationXY REAL,
  OrientationXZ REAL,
  OrientationYX REAL,
  OrientationYY REAL,
  OrientationYZ REAL,
  PositionX REAL,
  PositionY REAL,
  PositionZ REAL
);#
CREATE INDEX IF NOT EXISTS idx_imagepixel_series_fk ON imagepixel (series_fk);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_imagepixel_SOPInstanceUID ON imagepixel (SOPInstanceUID);#
CREATE TABLE IF NOT EXISTS mrimageinfo (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  ScanningSequence TEXT,
  SequenceVariant TEXT,
  ScanOptions TEXT,
  MRAcquisitionType TEXT,
  RepetitionTime TEXT,
  EchoTime TEXT,
  EchoTrainLength TEXT,
  InversionTime TEXT,
  TriggerTime TEXT,
  SequenceName TEXT,
  AngioFlag TEXT,
  NumberofAverages TEXT,
  ImagingFrequency TEXT,
  ImagedNucleus TEXT,
  EchoNumbers TEXT,
  MagneticFieldStrength TEXT,
  SpacingBetweenSlices TEXT,
  NumberofPhaseEncodingSteps TEXT,
  PercentSampling TEXT,
  PercentPhaseFieldofView TEXT,
  PixelBandwidth TEXT,
  NominalInterval TEXT,
  BeatRejectionFlag TEXT,
  LowRRValue TEXT,
  HighRRValue TEXT,
  IntervalsAcquired TEXT,
  IntervalsRejected TEXT,
  PVCRejection TEXT,
  SkipBeats TEXT,
  HeartRate TEXT,
  CardiacNumberofImages TEXT,
  TriggerWindow TEXT,
  ReconstructionDiameter TEXT,
  ReceiveCoilName TEXT,
  TransmitCoilName TEXT,
  AcquisitionMatrix TEXT,
  InplanePhaseEncodingDirection TEXT,
  FlipAngle TEXT,
  SAR TEXT,
  VariableFlipAngleFlag TEXT,
  dBdt TEXT,
  TemporalPositionIdentifier TEXT,
  NumberofTemporalPositions TEXT,
  TemporalResolution TEXT,
  IsocenterPosition TEXT,
  series_fk INTEGER,
  SOPInstanceUID TEXT
);#
CREATE INDEX IF NOT EXISTS idx_mrimageinfo_series_fk ON mrimageinfo (series_fk);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_mrimageinfo_SOPInstanceUID ON mrimageinfo (SOPInstanceUID);#
CREATE TABLE IF NOT EXISTS anonymouspatient (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  PatientName TEXT,
  PatientID TEXT,
  AnonymousPatientID TEXT,
  DateShift TEXT
);#
CREATE INDEX IF NOT EXISTS idx_anonymouspatient_PatientName ON anonymouspatient (PatientName);#
CREATE INDEX IF NOT EXISTS idx_anonymouspatient_PatientID ON anonymouspatient (PatientID);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_anonymouspatient_AnonymousPatientID ON anonymouspatient (AnonymousPatientID);#
CREATE TABLE IF NOT EXISTS anonymousstudy (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  StudyInstanceUID TEXT,
  AnonymousStudyInstanceUID TEXT,
  patient_fk INTEGER
);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_anonymousstudy_AnonymousStudyInstanceUID ON anonymousstudy (AnonymousStudyInstanceUID);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_anonymousstudy_StudyInstanceUID ON anonymousstudy (StudyInstanceUID);#
CREATE INDEX IF NOT EXISTS idx_anonymousstudy_patient_fk ON anonymousstudy (patient_fk);#
CREATE TABLE IF NOT EXISTS anonymousseries (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  SeriesInstanceUID TEXT,
  AnonymousSeriesInstanceUID TEXT,
  study_fk INTEGER
);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_anonymousseries_AnonymousSeriesInstanceUID ON anonymousseries (AnonymousSeriesInstanceUID);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_anonymousseries_SeriesInstanceUID ON anonymousseries (SeriesInstanceUID);#
CREATE INDEX IF NOT EXISTS idx_anonymousseries_study_fk ON anonymousseries (study_fk);#
CREATE TABLE IF NOT EXISTS anonymousimage (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  SOPInstanceUID TEXT,
  AnonymousSOPInstanceUID TEXT,
  series_fk INTEGER,
  AccessionNumber TEXT,
  PatientBirthTime TEXT,
  PatientName TEXT,
  TypeOfPatientID TEXT,
  PatientBirthDate TEXT,
  OtherPatientIDs TEXT,
  OtherPatientNames TEXT,
  OtherPatientIDsSequence TEXT,
  EthnicGroup TEXT,
  PatientSpeciesCodeSequence TEXT,
  PatientBreedCodeSequence TEXT,
  BreedRegistrationSequence TEXT,
  BreedRegistrationNumber TEXT,
  BreedRegistryCodeSequence TEXT,
  ResponsiblePerson TEXT,
  ResponsiblePersonRole TEXT,
  ResponsibleOrganization TEXT,
  StudyID TEXT,
  ReferringPhysicianName TEXT,
  ReferringPhysicianIdentificationSequence TEXT,
  PhysiciansOfRecord TEXT,
  PhysiciansOfRecordIdentificationSequence TEXT,
  PerformingPhysicianIdentificationSequence TEXT,
  PerformingPhysicianName TEXT,
  NameOfPhysiciansReadingStudy TEXT,
  PhysiciansReadingStudyIdentificationSequence TEXT,
  OperatorsName TEXT,
  OperatorIdentificationSequence TEXT,
  InstitutionName TEXT,
  OriginalElements TEXT,
  AddedElements TEXT,
  SourceDigest TEXT
);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_anonymousimage_SOPInstanceUID ON anonymousimage (SOPInstanceUID);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_anonymousimage_AnonymousSOPInstanceUID ON anonymousimage (AnonymousSOPInstanceUID);#
CREATE INDEX IF NOT EXISTS idx_anonymousimage_series_fk ON anonymousimage (series_fk);#
CREATE INDEX IF NOT EXISTS idx_anonymousimage_PatientName ON anonymousimage (PatientName);#
CREATE TABLE IF NOT EXISTS anonymousuid (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  UID TEXT,
  AnonymousUID TEXT
);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_anonymousuid_UID ON anonymousuid (UID);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_anonymousuid_AnonymousUID ON anonymousuid (AnonymousUID);#
CREATE TABLE IF NOT EXISTS series (
  seriesUID TEXT,
  recvnum INTEGER,
  upDBnum INTEGER,
  upCloudnum INTEGER
);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_series_seriesUID ON series (seriesUID);#
CREATE TABLE IF NOT EXISTS images (
  seriesUID TEXT,
  InstanceUID TEXT,
  DBflag INTEGER,
  Cloudflag INTEGER,
  filepath TEXT
);#
CREATE INDEX IF NOT EXISTS idx_images_seriesUID ON images (seriesUID);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_images_InstanceUID ON images (InstanceUID);#
CREATE TABLE IF NOT EXISTS registration (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  SeriesInstanceUID TEXT,
  ServerAddress TEXT,
  Savepath TEXT,
  VolumeHead TEXT,
  SeriesBase TEXT,
  VoxelChecksum TEXT
);#
CREATE UNIQUE INDEX IF NOT EXISTS uq_registration_SeriesInstanceUID ON registration (SeriesInstanceUID);#
CREATE INDEX IF NOT EXISTS idx_registration_SeriesBase ON registration (SeriesBase);#
CREATE TABLE IF NOT EXISTS patientuser (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  UserName TEXT,
  Password TEXT
);#
CREATE TABLE IF NOT EXISTS andvancequiry (
  pk INTEGER PRIMARY KEY AUTOINCREMENT,
  InquiryName TEXT,
  UserName TEXT,
  TableName TEXT,
  ColumnName TEXT,
  Operator TEXT,
  Value TEXT,
  Connector TEXT,
  MatchKind TEXT
);#
CREATE INDEX IF NOT EXISTS idx_andvancequiry_InquiryName ON andvancequiry (InquiryName);#
CREATE TABLE IF NOT EXISTS querypatientuser (
  pk INTEGER NOT NULL DEFAULT 1,
  PatientName INTEGER NOT NULL DEFAULT 1,
  PatientID INTEGER NOT NULL DEFAULT 1,
  PatientBirthDate INTEGER NOT NULL DEFAULT 1,
  PatientSex INTEGER NOT NULL DEFAULT 1,
  ReferencedPatientPhotoSequence INTEGER NOT NULL DEFAULT 1,
  QualityControlSubject INTEGER NOT NULL DEFAULT 1,
  ReferencedPatientSequence INTEGER NOT NULL DEFAULT 1,
  PatientBirthTime INTEGER NOT NULL DEFAULT 1,
  OtherPatientIDs INTEGER NOT NULL DEFAULT 1,
  OtherPatientIDsSequence INTEGER NOT NULL DEFAULT 1,
  TypeOfPatientID INTEGER NOT NULL DEFAULT 1,
  OtherPatientNames INTEGER NOT NULL DEFAULT 1,
  EthnicGroup INTEGER NOT NULL DEFAULT 1,
  PatientComments INTEGER NOT NULL DEFAULT 1,
  PatientSpeciesDescription INTEGER NOT NULL DEFAULT 1,
  PatientSpeciesCodeSequence INTEGER NOT NULL DEFAULT 1,
  PatientBreedDescription INTEGER NOT NULL DEFAULT 1,
  PatientBreedCodeSequence INTEGER NOT NULL DEFAULT 1,
  BreedRegistrationSequence INTEGER NOT NULL DEFAULT 1,
  BreedRegistrationNumber INTEGER NOT NULL DEFAULT 1,
  BreedRegistryCodeSequence INTEGER NOT NULL DEFAULT 1,
  ResponsiblePerson INTEGER NOT NULL DEFAULT 1,
  ResponsiblePersonRole INTEGER NOT NULL DEFAULT 1,
  ResponsibleOrganization INTEGER NOT NULL DEFAULT 1,
  PatientIdentityRemoved INTEGER NOT NULL DEFAULT 1,
  DeidentificationMethod INTEGER NOT NULL DEFAULT 1,
  DeidentificationMethodCodeSequence INTEGER NOT NULL DEFAULT 1,
  Status INTEGER NOT NULL DEFAULT 1,
  UserName TEXT NOT NULL DEFAULT ''
);#
CREATE TABLE IF NOT EXISTS querygeneralstudyuser (
  pk INTEGER NOT NULL DEFAULT 1,
  StudyInstanceUID INTEGER NOT NULL DEFAULT 1,
  StudyDate INTEGER NOT NULL DEFAULT 1,
  StudyTime INTEGER NOT NULL DEFAULT 1,
  ReferringPhysicianName INTEGER NOT NULL DEFAULT 1,
  ReferringPhysicianIdentificationSequence INTEGER NOT NULL DEFAULT 1,
  StudyID INTEGER NOT NULL DEFAULT 1,
  AccessionNumber INTEGER NOT NULL DEFAULT 1,
  IssuerOfAccessionNumberSequence INTEGER NOT NULL DEFAULT 1,
  StudyDescription INTEGER NOT NULL DEFAULT 1,
  PhysiciansOfRecord INTEGER NOT NULL DEFAULT 1,
  PhysiciansOfRecordIdentificationSequence INTEGER NOT NULL DEFAULT 1,
  NameOfPhysiciansReadingStudy INTEGER NOT NULL DEFAULT 1,
  PhysiciansReadingStudyIdentificationSequence INTEGER NOT NULL DEFAULT 1,
  RequestingServiceCodeSequence INTEGER NOT NULL DEFAULT 1,
  ReferencedStudySequence INTEGER NOT NULL DEFAULT 1,
  ProcedureCodeSequence INTEGER NOT NULL DEFAULT 1,
  ReasonForPerformedProcedureCodeSequence INTEGER NOT NULL DEFAULT 1,
  patient_fk INTEGER NOT NULL DEFAULT 1,
  InstitutionName INTEGER NOT NULL DEFAULT 1,
  Manufacturer INTEGER NOT NULL DEFAULT 1,
  ManufacturerModelName INTEGER NOT NULL DEFAULT 1,
  Status INTEGER NOT NULL DEFAULT 1,
  UserName TEXT NOT NULL DEFAULT ''
);#
CREATE TABLE IF NOT EXISTS querygeneralseriesuser (
  pk INTEGER NOT NULL DEFAULT 1,
  Modality INTEGER NOT NULL DEFAULT 1,
  SeriesInstanceUID INTEGER NOT NULL DEFAULT 1,
  SeriesNumber INTEGER NOT NULL DEFAULT 1,
  Laterality INTEGER NOT NULL DEFAULT 1,
  SeriesDate INTEGER NOT NULL DEFAULT 1,
  SeriesTime INTEGER NOT NULL DEFAULT 1,
  PerformingPhysicianName INTEGER NOT NULL DEFAULT 1,
  PerformingPhysicianIdentificationSequence INTEGER NOT NULL DEFAULT 1,
  ProtocolName INTEGER NOT NULL DEFAULT 1,
  SeriesDescription INTEGER NOT NULL DEFAULT 1,
  SeriesDescriptionCodeSequence INTEGER NOT NULL DEFAULT 1,
  OperatorsName INTEGER NOT NULL DEFAULT 1,
  OperatorIdentificationSequence INTEGER NOT NULL DEFAULT 1,
  ReferencedPerformedProcedureStepSequence INTEGER NOT NULL DEFAULT 1,
  RelatedSeriesSequence INTEGER NOT NULL DEFAULT 1,
  StudyInstanceUID INTEGER NOT NULL DEFAULT 1,
  PurposeOfReferenceCodeSequence INTEGER NOT NULL DEFAULT 1,
  BodyPartExamined INTEGER NOT NULL DEFAULT 1,
  PatientPosition INTEGER NOT NULL DEFAULT 1,
  SmallestPixelValueInSeries INTEGER NOT NULL DEFAULT 1,
  LargestPixelValueInSeries INTEGER NOT NULL DEFAULT 1,
  RequestAttributesSequence INTEGER NOT NULL DEFAULT 1,
  AnatomicalOrientationType INTEGER NOT NULL DEFAULT 1,
  study_fk INTEGER NOT NULL DEFAULT 1,
  SeriesBase INTEGER NOT NULL DEFAULT 1,
  Status INTEGER NOT NULL DEFAULT 1,
  UserName TEXT NOT NULL DEFAULT ''
);#
CREATE TABLE IF NOT EXISTS queryimageformatuser (
  pk INTEGER NOT NULL DEFAULT 1,
  InstanceNumber INTEGER NOT NULL DEFAULT 1,
  PatientOrientation INTEGER NOT NULL DEFAULT 1,
  ContentDate INTEGER NOT NULL DEFAULT 1,
  ContentTime INTEGER NOT NULL DEFAULT 1,
  ImageType INTEGER NOT NULL DEFAULT 1,
  AcquisitionNumber INTEGER NOT NULL DEFAULT 1,
  AcquisitionDate INTEGER NOT NULL DEFAULT 1,
  AcquisitionTime INTEGER NOT NULL DEFAULT 1,
  AcquisitionDateTime INTEGER NOT NULL DEFAULT 1,
  ReferencedImageSequence INTEGER NOT NULL DEFAULT 1,
  PurposeOfReferenceCodeSequence INTEGER NOT NULL DEFAULT 1,
  DerivationDescription INTEGER NOT NULL DEFAULT 1,
  DerivationCodeSequence INTEGER NOT NULL DEFAULT 1,
  SourceImageSequence INTEGER NOT NULL DEFAULT 1,
  SpatialLocationsPreserved INTEGER NOT NULL DEFAULT 1,
  ReferencedInstanceSequence INTEGER NOT NULL DEFAULT 1,
  ImagesInAcquisition INTEGER NOT NULL DEFAULT 1,
  ImageComments INTEGER NOT NULL DEFAULT 1,
  QualityControlImage INTEGER NOT NULL DEFAULT 1,
  BurnedInAnnotation INTEGER NOT NULL DEFAULT 1,
  RecognizableVisualFeatures INTEGER NOT NULL DEFAULT 1,
  LossyImageCompression INTEGER NOT NULL DEFAULT 1,
  LossyImageCompressionRatio INTEGER NOT NULL DEFAULT 1,
  LossyImageCompressionMethod INTEGER NOT NULL DEFAULT 1,
  IconImageSequence INTEGER NOT NULL DEFAULT 1,
  PresentationLUTShape INTEGER NOT NULL DEFAULT 1,
  IrradiationEventUID INTEGER NOT NULL DEFAULT 1,
  RealWorldValueMappingSequence INTEGER NOT NULL DEFAULT 1,
  series_fk INTEGER NOT NULL DEFAULT 1,
  SOPInstanceUID INTEGER NOT NULL DEFAULT 1,
  FilePath INTEGER NOT NULL DEFAULT 1,
  UserName TEXT NOT NULL DEFAULT ''
);#
INSERT INTO querygeneralseriesuser (UserName) VALUES ('default');#
INSERT INTO querygeneralstudyuser (UserName) VALUES ('default');#
INSERT INTO queryimageformatuser (UserName) VALUES ('default');#
INSERT INTO querypatientuser (UserName) VALUES ('default');#
INSERT INTO patientuser (UserName, Password) VALUES ('admin', '');#
