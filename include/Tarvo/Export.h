#ifndef TARVO_EXPORT_H
#define TARVO_EXPORT_H

/// Marks what libTarvo.so exports. The library is compiled with hidden visibility. A class is
/// exported as a whole, so that its type information is one object in every library that throws,
/// catches or casts it.
#define TARVO_EXPORT __attribute__((visibility("default")))

#endif
