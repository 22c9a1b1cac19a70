#include "klnmain.h"
