// The floor of reading a list: expat goes through the file and tells of every element and text, and
// nobody takes any notice.
// usage: expat-parse FILE

#include <expat.h>
#include <fcntl.h>
#include <unistd.h>

#include "bench/Figures.h"

int main(int argc, char** argv) {
  const int file = argc == 2 ? open(argv[1], O_RDONLY) : -1;
  if (file < 0) bench::fail("usage: expat-parse FILE");
  XML_Parser parser = XML_ParserCreate("UTF-8");
  XML_SetElementHandler(
      parser, [](void*, const XML_Char*, const XML_Char**) {}, [](void*, const XML_Char*) {});
  XML_SetCharacterDataHandler(parser, [](void*, const XML_Char*, int) {});
  constexpr int pieceSize = 65536;
  for (;;) {
    void* const buffer = XML_GetBuffer(parser, pieceSize);
    const auto count = static_cast<int>(read(file, buffer, pieceSize));
    if (count < 0 || XML_ParseBuffer(parser, count, count == 0) != XML_STATUS_OK) {
      bench::fail("the file cannot be parsed");
    }
    if (count == 0) return 0;
  }
}
