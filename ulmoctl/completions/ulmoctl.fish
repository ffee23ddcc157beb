# fish completion for ulmoctl
complete -c ulmoctl -f
complete -c ulmoctl -n __fish_use_subcommand -a status -d 'Tell whether Bluetooth is on'
complete -c ulmoctl -n __fish_use_subcommand -a on -d 'Enable Bluetooth'
complete -c ulmoctl -n __fish_use_subcommand -a off -d 'Disable Bluetooth'
complete -c ulmoctl -n __fish_use_subcommand -a pin -d 'Set the pairing PIN'
complete -c ulmoctl -n __fish_use_subcommand -a volume -d 'Set the volume'
complete -c ulmoctl -n __fish_use_subcommand -a mute -d 'Silence the sound'
complete -c ulmoctl -n __fish_use_subcommand -a unmute -d 'Let the sound be heard again'
complete -c ulmoctl -n __fish_use_subcommand -a disconnect -d 'Disconnect the connected device'
complete -c ulmoctl -n __fish_use_subcommand -a forget -d 'Forget a device, or every one'
complete -c ulmoctl -n __fish_use_subcommand -a watch -d "Print the service's signals"
complete -c ulmoctl -n __fish_use_subcommand -a help -d 'Print a summary of the commands'
complete -c ulmoctl -n '__fish_seen_subcommand_from on' -l wait -d 'Return when it is on'
complete -c ulmoctl -n '__fish_seen_subcommand_from forget' -l all -d 'Every device'
complete -c ulmoctl -n 'not __fish_seen_subcommand_from watch' -l timeout -x -d 'Seconds'
complete -c ulmoctl -l json -d 'Print JSON, one object per line'
complete -c ulmoctl -s h -l help -d 'Print a summary of the commands'
complete -c ulmoctl -l version -d 'Print the version'
