// The module's version.
#include "veltranePgFdwVersion.h"

namespace VeltranePgFdw3_0
{

int Version::GetMajor() const { return 3; }
int Version::GetMinor() const { return 2; }
int Version::GetRelease() const { return 13; }
int Version::GetRevision() const { return 166; }
int Version::GetYear() const { return 2022; }
int Version::GetMonth() const { return 7; }
const char *Version::GetDescStringMajorMinor(bool) const { return "3.2"; }
const char *Version::GetDescStringMajorMinorRelease(bool) const { return "3.2.13"; }
const char *Version::GetDescStringMajorMinorReleaseRevision(bool) const { return "3.2.13.166"; }
const char *Version::GetDescStringMajorMinorReleaseRevisionDate() const { return "3.2.13.166 2022-7"; }

} // namespace VeltranePgFdw3_0
