#include "Tarvo/Fmt.h"

int main() { Tarvo::Fmt::Impl::dumpDebugMsg("lost", 4, 0, nullptr, "file", "main", 1); }
