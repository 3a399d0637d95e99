# PKI_SANITIZE reaches every target, so that the library, the tools and the tests run alike.
if(PKI_SANITIZE)
  add_compile_options(-fsanitize=${PKI_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${PKI_SANITIZE})
endif()
