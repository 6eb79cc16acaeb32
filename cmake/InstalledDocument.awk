# A document as it is installed: without the README's sections about the source tree, and with links to what lies
# beside it, which is what the variable "there" names. A link to anything else is its text alone.
BEGIN { count = split(there, names, " "); for (i = 1; i <= count; ++i) beside[names[i]] }
/^## / { left_out = $0 ~ /^## (Try it|Build by hand|Where things are)$/ }
left_out { next }
{
    line = $0
    kept = ""
    while (match(line, /\[[^][]+\]\([^)]+\)/)) {
        link = substr(line, RSTART, RLENGTH)
        kept = kept substr(line, 1, RSTART - 1)
        line = substr(line, RSTART + RLENGTH)
        text = substr(link, 2, index(link, "](") - 2)
        target = substr(link, index(link, "](") + 2)
        sub(/\)$/, "", target)
        sub(/^(\.\.|docs)\//, "", target)
        sub(/^docs\//, "", text)
        place = target
        sub(/[\/#].*/, "", place)
        kept = kept (target ~ /^#/ || place in beside ? "[" text "](" target ")" : text)
    }
    print kept line
}
