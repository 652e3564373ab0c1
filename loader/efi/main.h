// The loader's run from the banner to the action.
#pragma once

namespace EfiLoader {

// Prints the banner, reads the configuration beside the loader, runs its
// jobs and its action.  Every failure is reported on the console, followed
// by a pause of 10 seconds.  Returns 1 on every road that comes back.
int LoaderMain();

}  // namespace EfiLoader
