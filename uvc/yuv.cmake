# Picture conversion, a library of its own: its tests and benchmarks need nothing else of the service.
add_library(uvc_yuv
  ${CMAKE_CURRENT_LIST_DIR}/uvc_gadget_yuy2.cpp
  ${CMAKE_CURRENT_LIST_DIR}/uvc_gadget_yuy2_x86.cpp
  ${CMAKE_CURRENT_LIST_DIR}/uvc_gadget_yuy2_neon.cpp
  ${CMAKE_CURRENT_LIST_DIR}/uvc_gadget_yuv.cpp)
