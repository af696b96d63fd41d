// The module's version, for whoever loads it.
#pragma once

#include "elasticsearch/veltraneExport.h"

namespace VeltranePgFdw3_0
{

// 3.2.13, revision 166, of July 2022. The strings are constants; the flags are ignored.
class VELTRANE_EXPORT Version
{
public:
    int GetMajor() const;
    int GetMinor() const;
    int GetRelease() const;
    int GetRevision() const;
    int GetYear() const;
    int GetMonth() const;
    const char *GetDescStringMajorMinor(bool) const;
    const char *GetDescStringMajorMinorRelease(bool) const;
    const char *GetDescStringMajorMinorReleaseRevision(bool) const;
    const char *GetDescStringMajorMinorReleaseRevisionDate() const;
};

} // namespace VeltranePgFdw3_0
