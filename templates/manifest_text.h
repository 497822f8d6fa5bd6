// Template text of an instrumentation manifest: the lines that the template
// text reader takes (see template_text.h), written as modsift writes them
// for a manifest, so that a manifest read out of a trace can be given back
// with -templates and reads the same as the layouts learned from it.
//
//   #{guid} ! Name                                      the provider, when named
//   {guid} ! $id, V<version>, L<name>, 0x8001, ...      one line per event with
//                                                       a template, identifiers
//                                                       ascending, newest version
//                                                       of each first
//
// An event with a template but no data gets its line with a lone word 0
// (its payload, if any, is guessed).
#pragma once

#include <string>

#include "support/guid.h"
#include "templates/manifest_xml.h"

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" in lower case.
std::string manifest_guid_text(const qv::guid16& guid);

// Appends the lines of one provider; returns how many event lines.
size_t append_provider_template_text(const manifest_provider& provider, std::string& out);
