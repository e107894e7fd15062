# Completion of kv-av-scan for bash: source this file, or install it as
# /usr/share/bash-completion/completions/kv-av-scan.

_kv_av_scan() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local options="-h --help -r --recursive -i --infected --json --no-summary -j --jobs --timeout
    --realm --sid --services --dir --broker --broker-user --broker-password-file --broker-cert
    -v --verbose --local --enable --definition"
  local switches="all EXECUTABLE FLASH GIFAR HTML_EVENTHANDLER HTML_SCRIPT MSOFFICE_JAVA MSOFFICE_OLE
    MSOFFICE_DDE MSOFFICE_MACRO MSOFFICE_MACRO_SIGNED PDF_ACROFORM PDF_ACTIVEACTION PDF_JAVASCRIPT
    PDF_LAUNCH PDF_OPENACTION PDF_RICHMEDIA PDF_METADATA_PERL PDF_METADATA_PHP SILVERLIGHT
    ZIP_JAVA_ARCHIVE XML_JAVASCRIPT XML_XSLT CSV_INJECTION"
  COMPREPLY=()
  case "$previous" in
    --enable)
      # Names are joined by commas: the last one is completed.
      local head=
      [[ $current == *,* ]] && head=${current%,*},
      mapfile -t COMPREPLY < <(compgen -P "$head" -W "$switches" -- "${current##*,}")
      compopt -o nospace
      return ;;
    --dir)
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return ;;
    -j | --jobs | --timeout | --realm | --sid | --services | --broker | --broker-user)
      return ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
  else
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}
complete -F _kv_av_scan kv-av-scan
