#ifndef QUENBY_QUENBY_H
#define QUENBY_QUENBY_H

#include <qvSystem/Export.h>

namespace qv
{
namespace json
{

/// Counts one use of the JSON library, which stands on no outside library. Any thread.
QV_EXPORT void initializeQvQuenby();

/// Undoes one `initializeQvQuenby`. Any thread.
QV_EXPORT void terminateQvQuenby();

/// True between the first initialisation and the last termination. Any thread.
QV_EXPORT bool IsQvQuenbyInitialized();

}  // namespace json
}  // namespace qv

#endif
