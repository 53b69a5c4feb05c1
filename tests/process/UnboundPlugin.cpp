/// A library that calls what no library has.

void nowhereDefined();

extern "C" __attribute__((visibility("default"))) void callNowhere();
void callNowhere() { nowhereDefined(); }
