# Writes the source file OUTPUT, which contains the page's three files from the folder SOURCE.
set(text "#include \"Page.h\"\n\nnamespace orvx::registry::asset {\n")
foreach(name Html Css Js)
  string(TOLOWER ${name} suffix)
  file(READ ${SOURCE}/page.${suffix} content)
  string(APPEND text "const std::string_view k${name} = R\"page(${content})page\";\n")
endforeach()
file(WRITE ${OUTPUT} "${text}}  // namespace orvx::registry::asset\n")
