# SPDX-License-Identifier: MIT
# bash completion for quorvel-avformat: subcommands, options, file names.
_quorvel_avformat() {
  local cur prev words cword
  _init_completion || return
  local subcommands="convert extract split mux concat batch info streams packets help"
  local common="-q --quiet -y --overwrite -n --no-overwrite --progress --loglevel --no-keys --trusted
    --allow-protocols --exact-cut --end-on-match --keep-times --keep-stream-numbers --raw-times --round-robin
    --shortest --one-stream-per-input --keep-input-times --cut-on-output-timeline --unfragmented-mp4
    --no-dts-as-pts --stop-on-refused --drop-codec-tags --help --version"
  case $prev in
    --progress) mapfile -t COMPREPLY < <(compgen -W "auto bar json none" -- "$cur"); return ;;
    --loglevel) mapfile -t COMPREPLY < <(compgen -W "quiet panic fatal error warning info verbose debug trace" -- "$cur"); return ;;
    -f | --format) mapfile -t COMPREPLY < <(compgen -W "matroska mpegts nut flv mp4 webm" -- "$cur"); return ;;
  esac
  local command="" word
  for word in "${words[@]:1:cword-1}"; do
    [[ " $subcommands " == *" $word "* ]] && { command=$word; break; }
  done
  local options=""
  case $command in
    convert) options="--start --ss --end --to --duration -t -f --format" ;;
    extract | split) options="--all --name -f --format" ;;
    mux) options="--start --ss --end --to --duration -t -f --format" ;;
    batch) options="--jobs --results --resume --shard" ;;
    info | streams | packets) options="--json" ;;
    help) mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$cur"); return ;;
    "") [[ $cur != -* ]] && { mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$cur"); return; } ;;
  esac
  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options $common" -- "$cur")
  else
    _filedir
  fi
}
complete -F _quorvel_avformat quorvel-avformat
