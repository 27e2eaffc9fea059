#include "transport/transport.hpp"

#include "domain/error.hpp"

namespace ravok {

Transport::~Transport() = default;

TransportResponse Transport::get_component(std::string_view component, std::uint64_t limit) {
  return get(component, limit);
}

bool Transport::supports_resumption() const { return false; }

void Transport::download_into(std::string_view, AllocatedFile&, std::uint64_t, const ProgressCallback&,
                              const std::function<void(std::string_view)>&, const std::function<void()>&) {
  fail("download_resume_unsupported", "This transport cannot resume target downloads");
}

}  // namespace ravok
