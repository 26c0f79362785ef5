# Writes a file's bytes into a C++ source: cmake -D IN=report.html -D OUT=ReportPage.cpp -P Embed.cmake
file(READ ${IN} bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
string(REGEX REPLACE "(................................................................................)" "\\1\n" bytes "${bytes}")
file(WRITE ${OUT} "#include <cstddef>\nextern const unsigned char kReportPage[];\nextern const std::size_t kReportPageBytes;\n"
  "const unsigned char kReportPage[] = {\n${bytes}};\nconst std::size_t kReportPageBytes = sizeof kReportPage;\n")
