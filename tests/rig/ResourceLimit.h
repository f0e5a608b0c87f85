#pragma once

#include <sys/resource.h>

namespace kestrune::testing {

/// Lowers a resource limit of this process. The destructor restores the old limit.
class ResourceLimit {
 public:
  ResourceLimit(__rlimit_resource givenResource, rlim_t value) : resource(givenResource) {
    getrlimit(resource, &before);
    const rlimit lower{value, before.rlim_max};
    setrlimit(resource, &lower);
  }
  ~ResourceLimit() { setrlimit(resource, &before); }
  ResourceLimit(const ResourceLimit&) = delete;
  ResourceLimit& operator=(const ResourceLimit&) = delete;

 private:
  const __rlimit_resource resource;
  rlimit before{};
};

}  // namespace kestrune::testing
