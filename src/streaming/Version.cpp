// The version queries; all constants of the build.

#include <Wendrel/Wendrel.h>

#include "streaming/VersionStamp.h"

#define WENDREL_SHORT_TEXT "3.0.0." WENDREL_STAMP_REVISION_TEXT
#define WENDREL_LONG_TEXT WENDREL_SHORT_TEXT " #" WENDREL_STAMP_COMMIT_ID

namespace Wendrel
{

unsigned int Version::GetMajor()
{
    return 3;
}

unsigned int Version::GetMinor()
{
    return 0;
}

unsigned int Version::GetRelease()
{
    return 0;
}

unsigned int Version::GetRevision()
{
    return WENDREL_STAMP_REVISION;
}

const char* Version::GetCommitId()
{
    return WENDREL_STAMP_COMMIT_ID;
}

unsigned int Version::GetYear()
{
    return WENDREL_STAMP_YEAR;
}

unsigned int Version::GetMonth()
{
    return WENDREL_STAMP_MONTH;
}

const char* Version::GetDescStringMajorMinor(bool)
{
    return "3.0";
}

const char* Version::GetDescStringMajorMinorRelease(bool)
{
    return "3.0.0";
}

const char* Version::GetDescStringMajorMinorReleaseRevision(bool, bool withCommitId)
{
    return withCommitId ? WENDREL_LONG_TEXT : WENDREL_SHORT_TEXT;
}

const char* Version::GetDescStringMajorMinorReleaseRevisionDate()
{
    return WENDREL_LONG_TEXT " " WENDREL_STAMP_DATE;
}

bool Version::IsBeta()
{
    return false;
}

bool Version::IsDebug()
{
    return false;
}

bool Version::IsDev()
{
    return false;
}

}  // namespace Wendrel
