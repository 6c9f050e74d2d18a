// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <utility>

namespace zr::halden::details {

/// Owns one descriptor of the system's, or none (-1).
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : m_descriptor(descriptor) {}
  ~FileDescriptor() {
    if (m_descriptor >= 0) close(m_descriptor);
  }

  FileDescriptor(FileDescriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
  }

  int Get() const { return m_descriptor; }
  explicit operator bool() const { return m_descriptor >= 0; }

 private:
  int m_descriptor = -1;
};

}  // namespace zr::halden::details
