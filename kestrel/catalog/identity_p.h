#pragma once

#include "platform/testexport_p.h"

#include <QString>

// Who a patient is. Real data reuse patient IDs across people (phantoms, external CDs, research
// IDs), so a patient is the ID together with its issuer, the birth date and the name. Names are
// compared after trimming spaces and trailing "^" separators, ignoring case.
namespace kestrel::internal {

// The name as identities compare it: spaces and trailing component separators trimmed, case folded.
KESTREL_TEST_EXPORT QString normalizedPersonName(const QString& name);

// The key of a patient row (patient.PatientKey): a digest of the four identifying values, 40
// hexadecimal characters. Equal for the same person however the name's case or padding differs.
KESTREL_TEST_EXPORT QString patientIdentityKey(const QString& patientId, const QString& issuer, const QString& birthDate,
                                               const QString& name);

} // namespace kestrel::internal
