#!/usr/bin/env bash
# The shared library's dynamic symbols are exactly its public interface: every symbol it exports
# is declared in an installed public header, and every function those headers declare (and do not
# define inline) is exported.
# Usage: exported_symbols_test.sh <libOlmLiteRt.so> <public header directory>
set -euo pipefail
library=$1
headers=$2
failures=0

# The public headers without their comments (the preprocessor strips them, expanding nothing).
public_code=$(for header in "$headers"/*.h; do ${CXX:-c++} -x c++ -fpreprocessed -dD -E -P "$header" 2>/dev/null; done)
# Every identifier the public headers declare or use.
declared_words=$(grep -oE '[A-Za-z_][A-Za-z0-9_]*' <<<"$public_code" | sort -u)
mentions() { grep -qxF "$1" <<<"$declared_words"; }

# The name an exported symbol is declared under: a C symbol's own name, a C++ function's last name
# component (a destructor's class), or the class of a typeinfo or vtable. The address sanitizer exports an ODR indicator,
# __odr_asan.<name>, beside every exported global; it is declared with its global.
declared_name() {
  local symbol=$1
  case "$symbol" in
    "__odr_asan."*) symbol=${symbol#__odr_asan.} ;;
    "typeinfo name for "*) symbol=${symbol#typeinfo name for } ;;
    "typeinfo for "*) symbol=${symbol#typeinfo for } ;;
    "vtable for "*) symbol=${symbol#vtable for } ;;
  esac
  symbol=${symbol%%(*}
  symbol=${symbol##*::}
  symbol=${symbol#\~}
  case "$symbol" in
    operator*) echo "operator" ;;
    *) echo "$symbol" ;;
  esac
}

# The global operator new and delete are replaceable: the library may define the forms <new>
# declares (but the inline placement forms) and the forms a public header declares, compared
# whole, by name and parameter types, in the form c++filt writes them: "operator new[](unsigned
# long, char const*, int)".
size_type=$(echo __SIZE_TYPE__ | ${CXX:-c++} -x c++ -E -P - | sed -E 's/long unsigned int/unsigned long/; s/^ +| +$//g')
operator_signatures() {
  tr '\n' ' ' | grep -oE 'operator[[:space:]]*(new|delete)[[:space:]]*(\[\])?[[:space:]]*\([^)]*\)' |
    awk -v size_type="$size_type" '
      function type_of(parameter, words) {
        gsub(/^ +| +$/, "", parameter)
        # A trailing parameter name goes; a last word that is part of the type stays.
        if (match(parameter, /[^A-Za-z0-9_:][A-Za-z_][A-Za-z0-9_]*$/) &&
            substr(parameter, RSTART + 1) !~ /^(int|long|short|char|unsigned|signed|bool|void)$/)
          parameter = substr(parameter, 1, RSTART)
        gsub(/ +$/, "", parameter)
        gsub(/ +[*]/, "*", parameter); gsub(/ +&/, "\\&", parameter)
        if (parameter ~ /^(std::)?size_t$/) parameter = size_type
        # "const T*" is written "T const*" ("&" in a replacement is the text matched).
        if (parameter ~ /^const /) { sub(/^const /, "", parameter); sub(/[*&]+$/, " const&", parameter) }
        return parameter
      }
      {
        name = $0; sub(/[[:space:]]*\(.*/, "", name); gsub(/[[:space:]]+/, " ", name); sub(/ \[\]/, "[]", name)
        list = $0; sub(/^[^(]*\(/, "", list); sub(/\)$/, "", list)
        count = split(list, parameters, ",")
        text = ""
        for (i = 1; i <= count; ++i) text = text (i > 1 ? ", " : "") type_of(parameters[i])
        print name "(" text ")"
      }' | grep -vE ', void[*]\)$' | sort -u
}
header_operators=$(operator_signatures <<<"$public_code")
replaceable_operators=$( (echo '#include <new>' | ${CXX:-c++} -x c++ -E -P - 2>/dev/null; echo "$public_code") | operator_signatures)
is_global_operator() { [[ "$1" =~ ^operator\ ?(new|delete) ]]; }

exported=$(${NM:-nm} -D --defined-only "$library" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }' | c++filt)
while IFS= read -r symbol; do
  [ -n "$symbol" ] || continue
  if is_global_operator "$symbol"; then
    if ! grep -qxF "$symbol" <<<"$replaceable_operators"; then
      echo "exported but declared neither by <new> nor in a public header: $symbol"
      failures=$((failures + 1))
    fi
    continue
  fi
  name=$(declared_name "$symbol")
  if ! mentions "$name"; then
    echo "exported but in no public header: $symbol"
    failures=$((failures + 1))
  fi
done <<<"$exported"

# Function declarations (not inline, not pure virtual) of the public headers must be exported. A
# declaration is a line that ends in ");" or ") const;" after a name and an argument list; the
# attributes of printf-like functions follow on the next line and end the same way.
exported_names=$(while IFS= read -r symbol; do declared_name "$symbol"; done <<<"$exported" | sort -u)
declared_functions=$(cat <<<"$public_code" |
  tr '\n' ' ' | sed 's/;/;\n/g' |
  grep -E '\)[[:space:]]*(const)?[[:space:]]*(__attribute__\(\([^;]*\)\))?[[:space:]]*;$' |
  grep -vE '=[[:space:]]*0[[:space:]]*;$|typedef|\{|^[[:space:]]*#|return ' |
  sed -E 's/__attribute__\(\(.*\)\)//; s/\([^()]*\)[[:space:]]*(const)?[[:space:]]*;$/(/' |
  grep -oE '[A-Za-z_][A-Za-z0-9_]*[[:space:]]*\($' | sed -E 's/[[:space:]]*\($//' |
  grep -vxE '__attribute__|format|printf|sizeof|static_assert|offsetof|alignof|defined|if|while|for|new|delete' |
  sort -u)
for name in $declared_functions; do
  if ! grep -qxF "$name" <<<"$exported_names"; then
    echo "declared in a public header but not exported: $name"
    failures=$((failures + 1))
  fi
done
# The operators the public headers declare, by their whole signature.
while IFS= read -r signature; do
  [ -n "$signature" ] || continue
  if ! grep -qxF "$signature" <<<"$exported"; then
    echo "declared in a public header but not exported: $signature"
    failures=$((failures + 1))
  fi
done <<<"$header_operators"

count=$(grep -c . <<<"$exported")
if [ "$failures" -ne 0 ]; then
  echo "$failures problem(s) among $count exported symbols"
  exit 1
fi
echo "$count exported symbols, each declared in a public header (or a replaceable operator of <new>); all $(wc -w <<<"$declared_functions") functions and $(grep -c . <<<"$header_operators") operators the headers declare are exported"
