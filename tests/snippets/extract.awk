# Writes every fenced block of a Markdown file to OUT/NNNN.LANG (NNNN: the
# line of the opening fence) and lists them, in order, in OUT/index as
# "NNNN<TAB>LANG<TAB>the last non-empty line of text before the block".
# Usage: awk -v out=DIR -f extract.awk FILE.md
/^```/ {
    if (!inside) {
        inside = 1
        lang = substr($0, 4)
        if (lang == "")
            lang = "plain"
        file = sprintf("%s/%04d.%s", out, NR, lang)
        printf "" > file
        printf "%04d\t%s\t%s\n", NR, lang, prose > (out "/index")
    } else {
        inside = 0
        close(file)
    }
    next
}
inside { print > file; next }
NF { prose = $0 }
