// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "agent/http/answer.h"
#include "agent/http/request.h"
#include "agent/view/service_view.h"

/// The parameters of requests, read strictly: a misspelt one would quietly ask for something else. Pure.
namespace zr::halden::agent {

/// Thrown where a request cannot be answered as it is.
struct Refused {
  Answer answer;
};

/// Throws Refused for a parameter that is not among these, or is given twice and is no filter.
void RequireKnown(const Target& target, std::initializer_list<std::string_view> names);
/// Throws Refused for what no filter is, and for a data centre that is not followed.
Filter ReadFilter(const Target& target, const ServiceView& view);
/// Null where none is asked for. Throws Refused.
std::optional<std::chrono::seconds> ReadWait(const Target& target);
/// Whether only live data centres are good enough. Throws Refused.
bool ReadRequireLive(const Target& target);

/// Whether `tag` is among those of an If-None-Match header.
bool Matches(std::string_view ifNoneMatch, std::string_view tag);
/// A name as part of a header.
std::string HeaderWord(std::string_view name);

}  // namespace zr::halden::agent
