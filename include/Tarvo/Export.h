#ifndef TARVO_EXPORT_H
#define TARVO_EXPORT_H

/// Marks what leaves libTarvo.so. The library is compiled with hidden visibility; a class carries
/// the mark as a whole, so that its type information is the same object in every library that
/// throws, catches or casts it.
#define TARVO_EXPORT __attribute__((visibility("default")))

#endif
