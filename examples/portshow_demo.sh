#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Drives portshow the way an operator would, at a terminal of its own: each answer is typed when its
# prompt stands there. Prints the dialogue, and fails unless it ends as it should.
#
#   portshow_demo.sh PORTSHOW
set -euo pipefail
tool=$1

# What is typed at each prompt; several lines where the first ones are refused. \b is the backspace key.
answers=(
    '3' '9' '8'               # Speed: not a multiple of 2, out of range, accepted
    '0x1F'                    # Mode
    'maybe' 'F'               # Enabled
    ''                        # Persistent: Enter keeps it
    'off'                     # Trunking
    'a name that is far too long' 'uplink 8\b7'  # Name: a slip corrected with backspace
    '10300'                   # Port ID
    '   in the cellar'        # Comment: leading blanks are cut
    ''                        # Contact
    '10.0.0.255' '10.0.0.9'   # Host
    ''                        # Gateway: the same variable
    '10.0.0.255'              # Network
    '64' '128'                # Key length
    '10:00:00:60:69:80:00:ac' # World wide name
    'a b' 'beta'              # Zone: one word
)
expected='portshow: 12 settings changed'
limit=20

echo '$ portshow -s 2 1/12 3/b/05 A/7'
coproc terminal { exec script -qefc "$(printf '%q' "$tool") -s 2 1/12 3/b/05 A/7" /dev/null; }
# shellcheck disable=SC2154  # set by coproc
child=$terminal_PID
exec 3<&"${terminal[0]}" 4>&"${terminal[1]}"

# Prints the dialogue line by line. A prompt is a line that stays open behind "] ", but for the one that
# goes on with the prefix of its answer.
line='' last='' next=0
while IFS= read -r -d '' -N 1 -t $limit character <&3; do
    case $character in
        $'\r') continue ;;
        $'\b') line=${line%?}; continue ;;
        $'\n') printf '    %s\n' "$line"; last=$line; line=; continue ;;
    esac
    line+=$character
    case $line in
        'Port ID: '*'] 0x') ;;
        'Port ID: '*) continue ;;
        [A-Z]*'] ') ;;
        *) continue ;;
    esac
    if ((next >= ${#answers[@]})); then
        printf '    %s\nportshow_demo: nothing left to answer\n' "$line"
        exit 1
    fi
    printf '%b\n' "${answers[next]}" >&4
    next=$((next + 1))
done
exec 3<&- 4>&-
status=0
wait "$child" || status=$?

if ((status != 0)) || [[ $last != "$expected" ]] || ((next != ${#answers[@]})); then
    echo "portshow_demo: failed (status $status, $next of ${#answers[@]} answers, last line: $last)"
    exit 1
fi
echo "portshow_demo: all ${#answers[@]} answers taken as expected"
