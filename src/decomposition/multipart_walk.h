// multipart_walk.h: taking a MIME body apart into files under mime_dir.
//
// skip2boundary scans for the next boundary line of a level, copying what
// it passes if asked; load_part turns one part into one file (or walks it,
// if it is itself multipart); load_multipart drives the parts of a level,
// lists their files in the record's attachments and keeps one survivor of
// each multipart/alternative level, by the host's subtype_rank table.
//
// Files are written one at a time: context.output is the open one, and is
// null whenever none is. A failure (a file that cannot be created, opened
// or written, a multipart subtype other than mixed and alternative) is
// reported and leaves as a thrown integer 1; nothing is cleaned up on the
// way, so files already written stay on disk. End of file is no failure:
// every level winds up as if its closing delimiter had come.
#pragma once

#include <cstdint>

#include "decomposition/content_header.h"
#include "decomposition/parse_context.h"

namespace qbsmtp {

// Multipart levels that are walked; a multipart part found at the deepest
// one is copied whole, as one file, up to its parent's next boundary.
inline constexpr int max_multipart_depth = 32;

// Start states of skip2boundary: what the caller knows of the position.
inline constexpr int boundary_scan_in_text = 0;        // anywhere in a line
inline constexpr int boundary_scan_line_start = 2;     // at a line start (behind CR LF)
inline constexpr int boundary_scan_behind_dashes = 4;  // behind "--" at a line start

// Reads up to and including the next line "--" boundary CR LF (result 1)
// or "--" boundary "--" CR LF, or the end of the file (result 0). With copy
// set, everything passed goes to context.output except the CR LF in front
// of the boundary line; what an unfinished match held back at the end of
// the file is dropped.
int skip2boundary(ParseContext& context, const ContentInfo& info, int start_state, bool copy);

// One part of the level described by parent, level being the number of
// multipart levels around it (0 for a message that is not multipart). Its
// own subtype goes to subtype_out. 1 if another part of the level follows.
// A file made for the part is left open in context.output.
int load_part(ParseContext& context, const ContentInfo& parent, std::int32_t* subtype_out,
              int level = 0);

// The parts of the multipart level info, which is level deep (1 for the
// message's own). Each file made is closed and listed.
void load_multipart(ParseContext& context, const ContentInfo& info, std::int32_t* subtype_out,
                    int level = 1);

// The extension for a part's file: that of name, cut to 19 characters and
// at a blank, if it can stand in a file name; else the type map's for the
// type and subtype names; else ".xxx". extension holds 20 bytes.
void choose_extension(const ContentInfo& info, char* extension);

}  // namespace qbsmtp
