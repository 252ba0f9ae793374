if(ZARVO_SANITIZE AND ZARVO_TSAN)
  message(FATAL_ERROR "ZARVO_SANITIZE and ZARVO_TSAN cannot be combined")
endif()

if(ZARVO_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(ZARVO_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()
