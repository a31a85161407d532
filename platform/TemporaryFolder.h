// The user's temporary folder, where files go that the user named no place
// for.
#pragma once

#include <cstddef>

namespace ferrolt::platform {

// The temporary folder with its trailing separator, written into buffer: on
// Windows as GetTempPathA gives it, elsewhere $TMPDIR, else /tmp/, with a
// trailing '/'. Returns its length; 0 when there is no such folder; the
// length it would need when that is size or more (nothing is written then).
size_t TemporaryFolder(char* buffer, size_t size);

// TemporaryFolder found none: says on standard error, once a run, which
// folder it tried and how to give it one.
void HintNoTemporaryFolder();

}  // namespace ferrolt::platform
