#ifndef TARVO_EXPORT_H
#define TARVO_EXPORT_H

// Everything that a program can use passes here, so a compiler that cannot do with it hears why.
#if __cplusplus < 202002L
#error "Tarvo needs C++20: compile with -std=c++20 or later"
#elif !defined(__cpp_exceptions)
#error "Tarvo needs exceptions: compile without -fno-exceptions"
#elif !defined(__cpp_rtti)
#error "Tarvo needs run-time type information: compile without -fno-rtti"
#endif

/// Marks what libTarvo.so exports. The library is compiled with hidden visibility. A class is
/// exported as a whole, so that its type information is one object in every library that throws,
/// catches or casts it.
#define TARVO_EXPORT __attribute__((visibility("default")))

#endif
