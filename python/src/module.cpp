// The extension module qelr._core: the version, the team size and the
// bindings of each family.
#include "bindings.h"
#include "common.h"

namespace qelr::py_ext {
namespace {

py::dict libraryVersion() {
    const QelLibraryVersion* v = qelrGetLibVersion();
    py::dict d;
    d["major"] = v->major;
    d["minor"] = v->minor;
    d["update"] = v->update;
    d["build"] = v->build;
    d["cpu_code"] = std::string(v->cpuCode, strnlen(v->cpuCode, sizeof v->cpuCode));
    d["library_name"] = v->libraryName;
    d["version_text"] = v->versionText;
    d["build_date"] = v->buildDate;
    return d;
}

void setNumThreads(long long n) {
    if (n < 1 || n > INT32_MAX) valueError("n: expected a thread count of at least 1");
    QelStatus st;
    {
        py::gil_scoped_release release;
        std::unique_lock<std::shared_mutex> lock(teamSizeLock());
        st = qelSetNumThreads(static_cast<int>(n));
    }
    checkStatus(st, "qelSetNumThreads");
}

int getNumThreads() { return ownGetNumThreads(); }

}  // namespace
}  // namespace qelr::py_ext

PYBIND11_MODULE(_core, m) {
    using namespace qelr::py_ext;
    m.doc() = "Bindings of libqelr; use the package qelr.";
    m.def("library_version", &libraryVersion, "The library's version record as a dict.");
    m.def("set_num_threads", &setNumThreads, pybind11::arg("n"),
          "Sets the team size of the library's parallel regions.");
    m.def("get_num_threads", &getNumThreads, "The team size of the library's parallel regions.");
    bindVolume(m);
    bindSH(m);
    bindScene(m);
}
