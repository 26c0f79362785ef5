# Writes a file's bytes into a C++ source: cmake -D IN=report.html -D OUT=ReportPage.cpp -P Embed.cmake
file(READ ${IN} bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
string(REGEX REPLACE "(................................................................................)" "\\1\n" bytes "${bytes}")
file(WRITE ${OUT} "extern const unsigned char kReportPage[];\nextern const unsigned long long kReportPageBytes;\n"
  "const unsigned char kReportPage[] = {\n${bytes}};\nconst unsigned long long kReportPageBytes = sizeof kReportPage;\n")
