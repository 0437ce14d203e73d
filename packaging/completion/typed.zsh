# Types each line of the standard input with a tab at its end in an interactive shell that has its completions as
# installed, and prints what the line is then.
zmodload zsh/zpty
zpty shell 'TERM=dumb zsh -f -i'
zpty -w shell 'PS1= PS2=; unsetopt zle_bracketed_paste prompt_sp; setopt no_list_beep; autoload -U compinit && compinit -u -D'
zpty -w shell 'show() { print -r -- "li""ne=$BUFFER=e""nd"; BUFFER= }; zle -N show; bindkey "^X" show; print read''y'
# The terminal echoes what is typed, so that no mark of the answers may stand there as it is.
zpty -r -m shell seen '*ready*' || exit 1
while read -r line; do
  zpty -w -n shell $line$'\t\x18'
  zpty -r -m shell seen '*=end*' || exit 1
  print -r -- ${${seen##*line=}%%=end*}
done
zpty -d shell
