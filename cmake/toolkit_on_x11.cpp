// A system's FLTK may draw on Wayland too. It looks in the program for this name before it decides.

extern bool fl_disable_wayland;
bool fl_disable_wayland = true;
