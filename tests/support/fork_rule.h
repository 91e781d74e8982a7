#pragma once

/// Ends the process by SIGABRT, with a line on standard error, when a second thread of it forks. A
/// process with one thread may fork as it likes. The linker has every fork of the code under test
/// pass here.
void require_forking_thread();
