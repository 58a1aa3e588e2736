#!/usr/bin/env bash
# Checks that every function declared to expect a lock held (RC_REQUIRES or
# RC_REQUIRES_SHARED, src/sync/ThreadAnnotations.h) has a name ending in
# "Locked", so that a call site shows it without the declaration at hand.
#
#   scripts/ci/check-locked-names.sh [FILE...]
#
# FILE defaults to every C++ source and header of src/, platform/, testing/,
# tools/, tests/ and bench/ that git knows. Lambdas (a condition variable's
# predicate) have no name and pass. An annotation whose function the script
# cannot make out fails too: write the declaration as `name(parameters)
# [qualifiers] [other RC_ annotations] RC_REQUIRES(...)`. Takes well under a
# second.
set -euo pipefail
cd "$(dirname "$0")/../.."

if [ "$#" -eq 0 ]; then
  mapfile -t files < <(git ls-files 'src/*.h' 'src/*.cpp' 'platform/*.h' 'platform/*.cpp' \
    'testing/*.h' 'testing/*.cpp' 'tools/*.h' 'tools/*.cpp' 'tests/*.h' 'tests/*.cpp' \
    'bench/*.h' 'bench/*.cpp')
else
  files=("$@")
fi

perl -e '
  my $failed = 0;
  for my $file (@ARGV) {
    open(my $in, "<", $file) or die "check-locked-names: cannot read $file\n";
    local $/;
    my $text = <$in>;
    close($in);
    # Comments, string and character literals and preprocessor lines become
    # blanks of the same length, so that offsets keep their line numbers.
    $text =~ s{(?<gone>//[^\n]*|/\*.*?\*/|\bR"(?<delim>[^()\\\s"]*)\(.*?\)\k<delim>"
                |"(?:\\.|[^"\\\n])*"|\x27(?:\\.|[^\x27\\\n])*\x27|^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*)}
              {my $m = $+{gone}; $m =~ s/[^\n]/ /g; $m}gsmxe;
    while ($text =~ /\bRC_REQUIRES(?:_SHARED)?\s*\(/g) {
      my $at = $-[0];
      my $line = 1 + (substr($text, 0, $at) =~ tr/\n//);
      my $before = substr($text, 0, $at);
      # Qualifiers and other annotations between the parameters and this one.
      1 while $before =~ s/(?:\s+|\b(?:const|noexcept|override|final)\b|&+|\bRC_\w+\s*(\((?:[^()]++|(?-1))*\)))\z//;
      my $name;
      if ($before =~ /(\((?:[^()]++|(?-1))*\))\z/) {
        my $head = substr($before, 0, $-[0]);
        if ($head =~ /\]\s*\z/) {
          next;  # a lambda
        }
        if ($head =~ /(~?\w+)\s*\z/) {
          $name = $1;
          $line = 1 + (substr($head, 0, $-[1]) =~ tr/\n//);  # where the name is
        }
      }
      if (!defined $name) {
        print STDERR "$file:$line: cannot tell which function this RC_REQUIRES belongs to\n";
        $failed = 1;
      } elsif ($name !~ /Locked\z/) {
        print STDERR "$file:$line: $name() expects a lock held (RC_REQUIRES) but its name does not end in Locked\n";
        $failed = 1;
      }
    }
  }
  exit $failed;
' "${files[@]}" || {
  echo "check-locked-names: rename the functions above (name them ...Locked)" >&2
  exit 1
}
echo "check-locked-names: every function that expects a lock held ends in Locked"
