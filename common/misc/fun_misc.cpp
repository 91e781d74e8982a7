#include "common/misc/fun_misc.h"

Tfun_misc* g_fun_misc = nullptr;
