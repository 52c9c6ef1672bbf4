# Base URLs of the cloud backends. They are deployment values: give the real ones when configuring.
set(QV_BACKEND_MAKER_PRODUCTION "https://ota.maker.example" CACHE STRING "Maker's production backend")
set(QV_BACKEND_MAKER_PRERELEASE "https://ota-pre.maker.example" CACHE STRING "Maker's pre-release backend")
set(QV_BACKEND_BRAND_PRODUCTION "https://ota.brand.example" CACHE STRING "Second brand's production backend")
set(QV_BACKEND_BRAND_PRERELEASE "https://ota-pre.brand.example" CACHE STRING "Second brand's pre-release backend")

set(QV_GENERATED_DIR ${CMAKE_CURRENT_BINARY_DIR}/generated)
configure_file(cmake/BackendHosts.h.in ${QV_GENERATED_DIR}/BackendHosts.h @ONLY)
