// The public headers must live beside headers that define everyday words as macros.
#include <curses.h>
#include <zlib.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#define signals public
#define slots
#define emit
#define foreach for
#define forever for (;;)

#include <VelkorSync/VelkorSync.h>

int main() { return 0; }
