// A provider extension whose documents live in another directory; see Info.plist.in for what it is
// told, and FolderProvider.h for what it does.

#include "FolderProvider.h"

int main() { return folder::FolderProvider().run(); }
