// The same check compiled as C++.
#include "header_check.c"
