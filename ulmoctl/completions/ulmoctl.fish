# fish completion for ulmoctl
complete -c ulmoctl -f
complete -c ulmoctl -n __fish_use_subcommand \
    -a '(ulmoctl help | string replace -rf "^  ([a-z]+) .*  (.*)" "\$1\t\$2")'
complete -c ulmoctl -n '__fish_seen_subcommand_from on' -l wait -d 'return when Bluetooth is on'
complete -c ulmoctl -n '__fish_seen_subcommand_from forget' -l all -d 'forget every device'
complete -c ulmoctl -n 'not __fish_seen_subcommand_from watch' -l timeout -x -d 'in seconds'
complete -c ulmoctl -l json -d 'print JSON, one object per line'
complete -c ulmoctl -s h -l help -d 'print a summary of the commands'
complete -c ulmoctl -l version -d 'print the version'
