// libmockp11_nofunctionlist.so: a valid shared library that is not a PKCS#11
// module, because it exports no C_GetFunctionList.
extern "C" __attribute__((visibility("default"))) int mockp11_not_a_module() {
    return 0;
}
