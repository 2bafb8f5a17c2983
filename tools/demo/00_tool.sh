# Sourced by demo_steps.sh: the tool and its subcommands.
step "fcadmin --help"
"$tool" --help
