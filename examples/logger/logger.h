// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// A program's own log, in a header whose name many programs have.
#pragma once

#include <iostream>
#include <mutex>
#include <string>

class Logger {
 public:
  void Write(const std::string& level, const std::string& from, const std::string& text) {
    const std::lock_guard lock(m_mtx);
    std::cout << "[own log] " << level << " " << from << ": " << text << "\n" << std::flush;
  }

 private:
  std::mutex m_mtx;
};
