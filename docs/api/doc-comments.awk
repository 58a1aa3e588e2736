# Doxygen input filter: reads a public header, whose comments are plain "//"
# comments in the project's style, and hands Doxygen the same text with
# those comments that document a declaration marked as documentation:
#   - the comment at the top of the file documents the file;
#   - a block of comment lines right above a declaration or a #define
#     documents it (a block followed by a blank line or another preprocessor
#     line is a note and stays a plain comment);
#   - a comment after a member or enumerator on its line documents it.
# Line numbers stay the same, so that warnings point at the header's lines.
function flush(next_line,    i, doc, text) {
  doc = next_line !~ /^[ \t]*$/ && (next_line !~ /^[ \t]*#/ || next_line ~ /^[ \t]*#[ \t]*define[ \t]/)
  for (i = 1; i <= n; i++) {
    text = block[i]
    if (at_top) {
      sub(/\/\//, "///", text)
      if (i == n) text = text " \\file"
    } else if (doc) {
      sub(/\/\//, "///", text)
    }
    print text
  }
  n = 0
  at_top = 0
}
BEGIN { at_top = 1; n = 0 }
/^[ \t]*\/\// { block[++n] = $0; next }
{
  if (n > 0) flush($0)
  else if ($0 !~ /^[ \t]*$/) at_top = 0
  line = $0
  # "member;  // text" and "ENUMERATOR = 1,  // text" document the member.
  if (line ~ /[;,][ \t]+\/\/ / && line !~ /NOLINT/ && line !~ /^[ \t]*}/) {
    sub(/[ \t]+\/\/ /, "  ///< ", line)
  }
  print line
}
END { if (n > 0) flush("") }
