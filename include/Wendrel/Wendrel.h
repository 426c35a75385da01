/// Bringing the library up and down, and its version.
#ifndef WENDREL_WENDREL_H
#define WENDREL_WENDREL_H

#include <Wendrel/Export.h>

namespace qv
{

/// Counts one initialisation; the first brings up the platform libraries and fills the table
/// of request methods. Call before a server is started: a server refuses to run otherwise.
/// Each call needs a `terminateWendrel` of its own, also one that has thrown `std::bad_alloc`: the
/// library is not usable then until it has been taken down and brought up again. Any thread, also
/// before `main` and after it, from the constructor and the destructor of a static object.
WENDREL_EXPORT void initializeWendrel();

/// Counts one termination; the last one undoes the first initialisation.
/// Call after the last server has been destroyed. Any thread.
WENDREL_EXPORT void terminateWendrel();

/// True while there are more initialisations than terminations. Any thread.
WENDREL_EXPORT bool IsWendrelInitialized();

}  // namespace qv

namespace Wendrel
{

/// The version of the library that is loaded. Returned texts are constants that stay valid
/// for the life of the process. Any thread.
class WENDREL_EXPORT Version
{
public:
    /// The first number of "3.0.0".
    static unsigned int GetMajor();

    /// The second one.
    static unsigned int GetMinor();

    /// The third one.
    static unsigned int GetRelease();

    /// Number of the build's revision.
    static unsigned int GetRevision();

    /// The build's commit: 16 lower-case hexadecimal digits.
    static const char* GetCommitId();

    /// Year of the build, four digits.
    static unsigned int GetYear();

    /// Month of the build, 1 to 12.
    static unsigned int GetMonth();

    /// "3.0". The argument is ignored.
    static const char* GetDescStringMajorMinor(bool reserved);

    /// "3.0.0". The argument is ignored.
    static const char* GetDescStringMajorMinorRelease(bool reserved);

    /// "3.0.0.2417", or with `withCommitId` "3.0.0.2417 #5e0c7a19b2d4f683". The first
    /// argument is ignored.
    static const char* GetDescStringMajorMinorReleaseRevision(bool reserved, bool withCommitId);

    /// "3.0.0.2417 #5e0c7a19b2d4f683 2026-2".
    static const char* GetDescStringMajorMinorReleaseRevisionDate();

    /// False: no such builds are released.
    static bool IsBeta();
    /// False, as `IsBeta`.
    static bool IsDebug();
    /// False, as `IsBeta`.
    static bool IsDev();
};

}  // namespace Wendrel

#endif
