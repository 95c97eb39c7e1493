// A toolkit ssl object with every entry point but wzr_get_cert_by_label: the library must
// treat it as not loaded. None of these is ever called.
#define WZRKIT_STUB(name) \
    extern "C" __attribute__((visibility("default"))) int name() { return 3; }
WZRKIT_STUB(wzr_environment_open)
WZRKIT_STUB(wzr_environment_close)
WZRKIT_STUB(wzr_environment_init)
WZRKIT_STUB(wzr_secure_soc_open)
WZRKIT_STUB(wzr_secure_soc_init)
WZRKIT_STUB(wzr_secure_soc_close)
WZRKIT_STUB(wzr_secure_soc_read)
WZRKIT_STUB(wzr_secure_soc_write)
WZRKIT_STUB(wzr_attribute_set_buffer)
WZRKIT_STUB(wzr_attribute_get_buffer)
WZRKIT_STUB(wzr_attribute_set_callback)
WZRKIT_STUB(wzr_attribute_get_cert_info)
WZRKIT_STUB(wzr_attribute_set_numeric_value)
WZRKIT_STUB(wzr_attribute_get_numeric_value)
WZRKIT_STUB(wzr_attribute_set_enum)
WZRKIT_STUB(wzr_attribute_get_enum)
WZRKIT_STUB(wzr_strerror)
