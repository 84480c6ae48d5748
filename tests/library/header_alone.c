/* Compiled behind one public header at a time. ISO C wants a declaration, and not every header has one. */
typedef int HeaderAlone;
